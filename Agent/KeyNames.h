#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

/// The words for keys and shortcuts that agents and scripts write.
struct KeyNames {
    /// What a keyboard event for it carries.
    struct Combo {
        std::uint16_t keyCode = 0;              // macOS virtual key code, ANSI layout
        std::optional<std::string> characters;  // of keys that print something
        std::uint64_t flags = 0;                // modifiers, in the layout of the wire
        bool operator==(const Combo&) const = default;
    };

    /// "cmd+shift+4", "return", "x": modifiers and one key, joined by "+", in any case. None if a word is
    /// unknown or the last one is no key.
    static std::optional<Combo> parse(std::string_view text);
};

}  // namespace velmora
