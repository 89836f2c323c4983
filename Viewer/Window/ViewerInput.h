#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "VelmoraKit/Wire/InputRecords.h"
#include "Viewer/Window/PictureGeometry.h"

namespace velmora {

/// Turns what a person's mouse and keyboard do over the picture into the events that travel, and remembers
/// what the host holds down because of it, so that nothing stays down there. Knows no window; places are
/// fractions of the stream, `flags` the wire's modifiers. Owned by VideoView; lives on the main queue.
class ViewerInput {
public:
    using Point = PictureGeometry::Point;

    std::function<void(const InputEvent&)> onInput;

    void move(Point at, std::uint64_t flags);
    /// `button`: 0 left, 1 right, 2 middle.
    void pressButton(std::int64_t button, Point at, int clickCount, std::uint64_t flags);
    void releaseButton(std::int64_t button, Point at, int clickCount, std::uint64_t flags);
    /// The buttons that are really down: a release that went elsewhere is made up for.
    void keepButtons(const std::set<std::int64_t>& held, Point at, std::uint64_t flags);
    /// Pixels on the host, up and left positive. Parts of a pixel wait for the next call.
    void scroll(double dx, double dy, std::uint64_t flags);

    /// A key of the wire's table went down, or repeats. `flags`: what was held before it. Modifiers are
    /// recognised by their code; what Caps Lock does is told by what it was, since it is a state and no key.
    void pressKey(std::uint16_t code, const std::optional<std::string>& characters, std::uint64_t flags);
    /// Only what we sent down comes up; another key's release means nothing to the host.
    void releaseKey(std::uint16_t code, std::uint64_t flags);
    /// Text without a key of its own.
    void type(const std::string& characters, std::uint64_t flags);
    void releaseKeys();
    void releaseButtons();

    bool holdsKey(std::uint16_t code) const { return keysDown_.contains(code); }
    bool holdsAnything() const { return !keysDown_.empty() || !buttonsDown_.empty(); }

private:
    void send(const InputEvent& event) const;
    void sendKey(const InputEvent& event);
    void pressCapsLock(std::uint64_t flags);

    std::map<std::uint16_t, InputEvent> keysDown_;  // as sent
    std::set<std::int64_t> buttonsDown_;
    Point lastPoint_;
    double remainderX_ = 0, remainderY_ = 0;
    bool hostHasCapsLock_ = false;
};

/// Counts clicks: 2 for a double click, and on. Places in points, time in milliseconds.
class ClickCounter {
public:
    struct Limits {
        std::int64_t interval = 400;
        double distance = 5;
    };
    int press(std::int64_t button, double x, double y, std::int64_t time, const Limits& limits);
    int count() const { return count_; }

private:
    std::int64_t button_ = 0, time_ = 0;
    double x_ = 0, y_ = 0;
    int count_ = 0;
};

}  // namespace velmora
