#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Wire/ByteCoding.h"

// How the JSON records of this folder become C++ values, strictly: nlohmann's own conversions would turn 1.5
// into 1, 300 into a byte and true into a number. Only .cpp files include this; the JSON library stays out of
// the headers.
//
// A record lists its keys once, in a function beside it that serves both directions:
//
//     void eachKey(auto& keys, json::MaybeConst<BitrateHint> auto& hint) { keys("maxMbps", hint.maxMbps); }
//
// An enumeration whose names travel has `nameOf(value)` and `readName(text, into)` beside it.

namespace velmora::json {

using Json = nlohmann::json;

/// No record comes near this. A document takes some ten times its text while it is read, and a peer chose the
/// text.
inline constexpr std::size_t longestText = 1 << 20;

/// A `Record`, const while writing.
template <class T, class Record>
concept MaybeConst = std::same_as<std::remove_const_t<T>, Record>;

template <class T>
struct OptionalOf : std::false_type {};
template <class T>
struct OptionalOf<std::optional<T>> : std::true_type {};

template <class T>
struct ListOf : std::false_type {};
template <class T>
struct ListOf<std::vector<T>> : std::true_type {};

template <class T>
bool read(const Json& value, T& into);
template <class T>
Json write(const T& value);

/// Whole numbers that fit, however they are spelled (5 and 5.0 are the same JSON number); not 5.5, nor a
/// boolean.
template <std::integral T>
bool readInteger(const Json& value, T& into) {
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        into = static_cast<T>(number);
        return std::in_range<T>(number);
    }
    if (value.is_number_integer()) {
        const auto number = value.get<std::int64_t>();
        into = static_cast<T>(number);
        return std::in_range<T>(number);
    }
    if (!value.is_number_float()) return false;
    const double number = value.get<double>();
    if (number != std::trunc(number)) return false;
    // max() + 1 is a power of two, which a double holds exactly; max() itself may not be.
    const double end = std::ldexp(1.0, std::numeric_limits<T>::digits);
    if (number < static_cast<double>(std::numeric_limits<T>::min()) || number >= end) return false;
    into = static_cast<T>(number);
    return true;
}

/// Reads the members of one object; `complete` turns false at the first that is missing or of the wrong type.
struct Reading {
    const Json& object;
    bool complete = true;

    template <class Field>
    void operator()(const char* key, Field& field) {
        const auto found = object.find(key);
        if constexpr (OptionalOf<Field>::value) {
            if (found == object.end() || found->is_null()) return field.reset();
            complete = complete && read(*found, field.emplace());
        } else {
            complete = complete && found != object.end() && read(*found, field);
        }
    }
};

/// Writes the members of one object; an absent value has no key.
struct Writing {
    Json object = Json::object();

    template <class Field>
    void operator()(const char* key, const Field& field) {
        if constexpr (OptionalOf<Field>::value) {
            if (field) object[key] = write(*field);
        } else {
            object[key] = write(field);
        }
    }
};

template <class T>
bool read(const Json& value, T& into) {
    if constexpr (std::same_as<T, bool>) {
        if (!value.is_boolean()) return false;
        into = value.get<bool>();
        return true;
    } else if constexpr (std::integral<T>) {
        return readInteger(value, into);
    } else if constexpr (std::same_as<T, double>) {
        if (!value.is_number()) return false;
        into = value.get<double>();
        return true;
    } else if constexpr (std::same_as<T, std::string>) {
        if (!value.is_string()) return false;
        into = value.get_ref<const std::string&>();
        return true;
    } else if constexpr (ListOf<T>::value) {
        if (!value.is_array()) return false;
        for (const Json& element : value) {
            if (!read(element, into.emplace_back())) return false;
        }
        return true;
    } else if constexpr (std::is_enum_v<T>) {
        return value.is_string() && readName(value.get_ref<const std::string&>(), into);
    } else {
        if (!value.is_object()) return false;
        Reading keys{value};
        eachKey(keys, into);
        return keys.complete;
    }
}

template <class T>
Json write(const T& value) {
    if constexpr (std::is_arithmetic_v<T> || std::same_as<T, std::string>) {
        return value;
    } else if constexpr (ListOf<T>::value) {
        Json list = Json::array();
        for (const auto& element : value) list.push_back(write(element));
        return list;
    } else if constexpr (std::is_enum_v<T>) {
        return nameOf(value);
    } else {
        Writing keys;
        eachKey(keys, value);
        return std::move(keys.object);
    }
}

/// The text as compact JSON. Bytes that are not UTF-8 become U+FFFD, so encoding cannot fail.
template <class Record>
Bytes encodeRecord(const Record& record) {
    return bytesOf(write(record).dump(-1, ' ', false, Json::error_handler_t::replace));
}

template <class Record>
Result<Record, WireError> decodeRecord(ByteView data) {
    if (data.size() > longestText) return WireError::malformed;
    const Json value = Json::parse(data.begin(), data.end(), nullptr, /*allow_exceptions=*/false);
    Record record;
    if (value.is_discarded() || !read(value, record)) return WireError::malformed;
    return record;
}

}  // namespace velmora::json
