#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora {

/// A window over the whole screen of a test's X server that has the keyboard and writes down what arrives.
/// Independent of the code under test.
class XInputWindow {
public:
    struct Event {
        enum class Kind { keyDown, keyUp, buttonDown, buttonUp, motion };
        Kind kind = Kind::motion;
        std::uint8_t detail = 0;  // X11 key code, or X11 button
        std::uint16_t state = 0;  // modifiers and buttons held before it
        int x = 0, y = 0;
        std::uint32_t time = 0;  // the server's, in milliseconds
    };
    /// `className` is what the window says it is (WM_CLASS).
    explicit XInputWindow(const std::string& display, const std::string& className = "Window");
    ~XInputWindow();
    XInputWindow(const XInputWindow&) = delete;
    XInputWindow& operator=(const XInputWindow&) = delete;

    /// On the screen, and the keyboard is ours.
    bool ok() const { return ready_; }
    const std::vector<Event>& events();
    /// Waits until `condition` holds of the events so far; false if it does not within 10 s.
    bool waitUntil(const std::function<bool(const std::vector<Event>&)>& condition);
    /// Takes the events so far and forgets them.
    std::vector<Event> take();

    /// Whether the server goes on holding a key or button down: 10 s are given to what is on its way up.
    bool isAnythingDown();
    /// The symbols of a key in the core keyboard map, none if it has none.
    std::vector<std::uint32_t> symbolsOf(std::uint8_t code);
    xcb_connection_t* connection() const { return connection_; }
    xcb_window_t window() const { return window_; }

private:
    void read();
    bool isAnythingDownNow();
    bool waitForMap();

    xcb_connection_t* connection_;
    xcb_window_t root_ = 0, window_ = 0;
    bool ready_ = false;
    std::vector<Event> events_;
};

}  // namespace velmora
