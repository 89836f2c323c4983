#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace velmora {

/// What kind of machine a device is, for its icon. Told to others by its raw value.
enum class MacKind { macbook, imac, macmini, macstudio, macpro, mac };

inline constexpr std::array<std::pair<MacKind, std::string_view>, 6> macKindRawValues{{
    {MacKind::macbook, "macbook"},
    {MacKind::imac, "imac"},
    {MacKind::macmini, "macmini"},
    {MacKind::macstudio, "macstudio"},
    {MacKind::macpro, "macpro"},
    {MacKind::mac, "mac"},
}};

constexpr std::string_view rawValueOf(MacKind kind) {
    for (const auto& [known, raw] : macKindRawValues) {
        if (known == kind) return raw;
    }
    return "mac";
}

/// None for a text that is no raw value.
constexpr std::optional<MacKind> macKindFor(std::string_view rawValue) {
    for (const auto& [kind, raw] : macKindRawValues) {
        if (raw == rawValue) return kind;
    }
    return std::nullopt;
}

}  // namespace velmora
