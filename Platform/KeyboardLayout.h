#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velmora {

/// The layout of the machine's own keyboard, asked key by key. Used on one queue.
class KeyboardLayout {
public:
    /// Which modifiers are held while a key is pressed.
    struct Modifiers {
        bool shift = false;
        bool option = false;
        bool operator==(const Modifiers&) const = default;
    };
    virtual ~KeyboardLayout() = default;

    /// Names the layout in force; changes when it does. None if there is no keyboard to ask.
    virtual std::optional<std::string> currentId() = 0;
    /// False if the layout tells nothing of its characters.
    virtual bool hasCharacters() = 0;
    /// The text that macOS virtual key `keyCode` (0 to 127) gives, dead keys as plain characters; empty for
    /// none.
    virtual std::string charactersFor(std::uint16_t keyCode, Modifiers modifiers) = 0;
};

}  // namespace velmora
