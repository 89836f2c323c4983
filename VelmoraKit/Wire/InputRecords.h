#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// JSON, viewer to host: one movement, click, scroll or key. The defaults are what a kind that does not need
/// a field sends: every key but `characters` is always present.
struct InputEvent {
    enum class Kind { mouseMove, mouseDown, mouseUp, scroll, key };

    Kind kind = Kind::mouseMove;
    double x = 0, y = 0;                    // pointer position
    std::int64_t button = 0;                // mouse button number
    std::int64_t clickCount = 1;            // 2 for a double click and so on
    double dx = 0, dy = 0;                  // scroll delta
    std::uint16_t keyCode = 0;              // virtual key code
    std::optional<std::string> characters;  // the text that a key event stands for
    bool down = false;                      // key pressed, not released
    std::uint64_t flags = 0;                // modifiers

    Bytes encode() const;
    static Result<InputEvent, WireError> decode(ByteView data);
    bool operator==(const InputEvent&) const = default;
};

}  // namespace velmora
