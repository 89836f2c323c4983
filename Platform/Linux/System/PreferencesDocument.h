#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/PreferenceStore.h"

namespace velmora {

/// The preferences file as text that a person can read and edit: one JSON object, a member per key. Types
/// are kept: true, 1, 1.0 and "1" differ; bytes are {"$bytes": base64}, dates {"$date": milliseconds}, the
/// doubles that JSON lacks {"$double": "nan", "inf" or "-inf"}. Members of another form (a later version's)
/// are not read as values, and stay in the file.
class PreferencesDocument {
public:
    using Values = std::map<std::string, PreferenceValue, std::less<>>;

    /// None if `text` is not one JSON object.
    static std::optional<PreferencesDocument> parse(std::string_view text);
    std::string text() const;

    Values values() const;
    void set(const std::string& key, const PreferenceValue& value);
    void remove(const std::string& key);

private:
    nlohmann::json root_ = nlohmann::json::object();
};

}  // namespace velmora
