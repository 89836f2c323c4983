#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// One form of what is copied. A copy is often offered in several.
struct PasteboardItem {
    std::string type;
    Bytes data;
    bool operator==(const PasteboardItem&) const = default;
};

/// The clipboard that the programs of this machine share. Lives on the main queue, where its callbacks arrive
/// too, never from inside a call. Nothing here waits: what another program holds comes in its own time, and
/// after a few seconds of silence not at all.
class Pasteboard {
public:
    /// Types that the machine's own names are translated from and to. Any other type is passed as it is.
    struct Type {
        static constexpr const char* text = "text/plain;charset=utf-8";
        static constexpr const char* png = "image/png";
        static constexpr const char* files = "text/uri-list";
        /// Say of a copy that it is nobody else's business: a password.
        static constexpr const char* concealed = "org.nspasteboard.ConcealedType";
        static constexpr const char* transient = "org.nspasteboard.TransientType";
    };

    /// Why there are no bytes.
    struct Lack {
        std::size_t tooLong = 0;  // at least so many, more than was allowed; 0: not offered, or no answer
        bool operator==(const Lack&) const = default;
    };
    using Types = UniqueFunction<void(std::vector<std::string>)>;
    using Reading = UniqueFunction<void(Result<Bytes, Lack>)>;
    using Files = UniqueFunction<void(std::vector<std::filesystem::path>)>;
    /// Ends the observation when destroyed.
    using Observation = std::shared_ptr<void>;

    virtual ~Pasteboard() = default;

    /// Another number after each change, our own writes included: those count before `write` returns.
    virtual std::int64_t changeCount() = 0;

    /// What is offered now, in the owner's order and words; nothing if the owner must be asked and is silent.
    virtual void readTypes(Types done) = 0;
    /// The bytes of a type, at most `most` of them. `text` and `png` are found under any name and in
    /// any form that they have here.
    virtual void read(const std::string& type, std::size_t most, Reading done) = 0;
    /// The files and folders copied, absolute; nothing if what is copied is not on this machine.
    virtual void readFiles(Files done) = 0;

    /// Replaces everything by these, which must differ in type. No items: an empty pasteboard.
    virtual void write(std::vector<PasteboardItem> items) = 0;
    void clear() { write({}); }
    /// Replaces everything by files that exist, absolute.
    virtual void writeFiles(const std::vector<std::filesystem::path>& files) = 0;

    /// Told after each change. May be ended while it is being told.
    [[nodiscard]] Observation observe(std::function<void()> onChange) {
        auto held = std::make_shared<std::function<void()>>(std::move(onChange));
        observers_.push_back(held);
        return held;
    }

protected:
    void tellObservers() {
        observers_.remove_if([](const auto& observer) { return observer.expired(); });
        for (const auto& observer : std::list(observers_)) {
            if (const auto held = observer.lock()) (*held)();
        }
    }

private:
    std::list<std::weak_ptr<std::function<void()>>> observers_;
};

}  // namespace velmora
