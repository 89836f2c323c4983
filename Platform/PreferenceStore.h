#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A moment as a preference keeps it: whole milliseconds of the wall clock.
using PreferenceDate = std::chrono::sys_time<std::chrono::milliseconds>;
using PreferenceValue = std::variant<bool, std::int64_t, double, std::string, Bytes, PreferenceDate>;

/// The user's settings by key, shared by all processes of the program. A value keeps its type: an integer
/// stays one. Any thread; nothing blocks, what is set is read back at once and reaches the disk and the
/// other processes shortly after.
class PreferenceStore {
public:
    /// Told of the key that changed, by this process or another one. Read the value when told: several
    /// changes may have come together.
    using Observer = std::function<void(const std::string& key)>;
    /// Ends the observation when destroyed, on the observer's queue: then it is sure not to be told again.
    class Observation {
    public:
        virtual ~Observation() = default;
    };

    virtual ~PreferenceStore() = default;

    virtual std::optional<PreferenceValue> get(std::string_view key) const = 0;
    virtual void set(std::string_view key, PreferenceValue value) = 0;
    virtual void remove(std::string_view key) = 0;

    /// `observer` runs on `queue`, never from inside `set`. Setting the value a key already has tells
    /// nothing. `queue` and the store outlive the observation.
    [[nodiscard]] virtual std::unique_ptr<Observation> observe(Queue& queue, Observer observer) = 0;

    /// Returns when all that was set is on the disk, or could not be put there. For the end of the program.
    virtual void flush() = 0;

    /// The value if there is one and it has type T. No conversion: a broken value is as good as none.
    template <class T>
    std::optional<T> getAs(std::string_view key) const {
        auto value = get(key);
        if (!value || !std::holds_alternative<T>(*value)) return std::nullopt;
        return std::get<T>(*std::move(value));
    }
    std::optional<std::string> string(std::string_view key) const { return getAs<std::string>(key); }
    bool boolOr(std::string_view key, bool fallback) const { return getAs<bool>(key).value_or(fallback); }
    std::int64_t integerOr(std::string_view key, std::int64_t fallback) const {
        return getAs<std::int64_t>(key).value_or(fallback);
    }
};

}  // namespace velmora
