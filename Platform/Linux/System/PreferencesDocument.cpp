#include "Platform/Linux/System/PreferencesDocument.h"

#include <cmath>
#include <limits>

#include "VelmoraKit/Core/Base64.h"

namespace velmora {
namespace {

using Json = nlohmann::json;

Json jsonOf(double number) {
    if (std::isfinite(number)) return number;
    return Json{{"$double", std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf"}};
}
Json jsonOf(const Bytes& bytes) {
    return Json{{"$bytes", base64Of(bytes)}};
}
Json jsonOf(PreferenceDate date) {
    return Json{{"$date", date.time_since_epoch().count()}};
}
template <class T>
Json jsonOf(const T& plain) {
    return plain;
}

std::optional<std::int64_t> integerOf(const Json& json) {
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (json.is_number_unsigned() && json.get<std::uint64_t>() > most) return std::nullopt;
    if (!json.is_number_integer()) return std::nullopt;
    return json.get<std::int64_t>();
}

std::optional<PreferenceValue> taggedValueOf(const Json& object) {
    if (object.size() != 1) return std::nullopt;
    const std::string& tag = object.begin().key();
    const Json& content = *object.begin();
    if (tag == "$date") {
        const auto millis = integerOf(content);
        if (!millis) return std::nullopt;
        return PreferenceDate(std::chrono::milliseconds(*millis));
    }
    if (!content.is_string()) return std::nullopt;
    const auto& text = content.get_ref<const std::string&>();
    if (tag == "$bytes") {
        auto bytes = bytesOfBase64(text);
        if (!bytes) return std::nullopt;
        return *std::move(bytes);
    }
    if (tag == "$double") {
        if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
        if (text == "inf") return std::numeric_limits<double>::infinity();
        if (text == "-inf") return -std::numeric_limits<double>::infinity();
    }
    return std::nullopt;
}

std::optional<PreferenceValue> valueOf(const Json& json) {
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number_float()) return json.get<double>();
    if (json.is_string()) return json.get<std::string>();
    if (json.is_object()) return taggedValueOf(json);
    if (const auto integer = integerOf(json)) return *integer;
    return std::nullopt;
}

/// The JSON library copies and writes by recursion, so hostile nesting would end on the stack.
bool nestsDeeperThan(int limit, std::string_view text) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString && c == '\\') {
            ++i;
        } else if (c == '"') {
            inString = !inString;
        } else if (!inString && (c == '{' || c == '[')) {
            if (++depth > limit) return true;
        } else if (!inString && (c == '}' || c == ']')) {
            --depth;
        }
    }
    return false;
}

}  // namespace

std::optional<PreferencesDocument> PreferencesDocument::parse(std::string_view text) {
    constexpr int deepest = 64;
    if (nestsDeeperThan(deepest, text)) return std::nullopt;
    PreferencesDocument document;
    document.root_ = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.root_.is_object()) return std::nullopt;
    return document;
}

std::string PreferencesDocument::text() const {
    return root_.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

PreferencesDocument::Values PreferencesDocument::values() const {
    Values values;
    for (const auto& [key, json] : root_.items()) {
        if (auto value = valueOf(json)) values.emplace(key, *std::move(value));
    }
    return values;
}

void PreferencesDocument::set(const std::string& key, const PreferenceValue& value) {
    root_[key] = std::visit([](const auto& plain) { return jsonOf(plain); }, value);
}

void PreferencesDocument::remove(const std::string& key) {
    root_.erase(key);
}

}  // namespace velmora
