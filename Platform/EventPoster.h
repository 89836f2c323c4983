#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Displays.h"

namespace velmora {

/// A synthetic input event, in the terms of the wire: macOS virtual key codes, the usual 64-bit modifier
/// flags, global pixel coordinates.
struct PostedEvent {
    enum class Kind { mouseMove, mouseDrag, mouseDown, mouseUp, scroll, keyDown, keyUp, text };
    Kind kind = Kind::mouseMove;
    double x = 0, y = 0;
    int button = 0;                // 0 left, 1 right, 2 other; of mouse events and drags
    int clickCount = 1;            // of mouse buttons
    int scrollX = 0, scrollY = 0;  // whole pixels; positive y scrolls up, positive x left
    std::uint16_t keyCode = 0;
    std::uint64_t flags = 0;
    std::u16string
        text;  // of `text`: typed as characters, whatever the layout; whole before the call returns
    // Of keyDown. The key was chosen because the layout gives a wanted character there: a lifeless copy of a
    // dead key's sign is what is meant, if anything. With `optionIsLevel` the option in `flags` is part of
    // typing that character (a third level), not of a shortcut.
    bool forCharacter = false;
    bool optionIsLevel = false;
    bool operator==(const PostedEvent&) const = default;
};

namespace EventFlags {
inline constexpr std::uint64_t capsLock = 0x10000, shift = 0x20000, control = 0x40000, option = 0x80000,
                               command = 0x100000;
}

/// Posts events as if the local hardware had made them. One object per session; used on one queue (input),
/// where a call may take milliseconds, and more while text waits for an application to follow.
/// An event that cannot be made is dropped. When the object is destroyed it lifts every key and button that
/// it pressed and gives back what it borrowed from the keyboard map.
class EventPoster {
public:
    virtual ~EventPoster() = default;
    virtual void post(const PostedEvent& event) = 0;
};

class EventPosterFactory {
public:
    virtual ~EventPosterFactory() = default;
    struct Options {
        bool agent = false;  // shortcuts mean what they mean on a Mac
    };
    /// None, with a log line, where events cannot be posted.
    virtual std::unique_ptr<EventPoster> make(const Options& options) = 0;
};

}  // namespace velmora
