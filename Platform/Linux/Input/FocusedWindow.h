#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// The window that gets the keys: what it is, and whether its application has caught up. Every answer takes
/// round trips. Used on the thread of its connection.
class FocusedWindow {
public:
    using OnEvent = std::function<void(const xcb_generic_event_t&)>;

    /// `onOtherEvent` takes the connection's events that arrive while we wait for ours.
    FocusedWindow(const XConnection& connection, OnEvent onOtherEvent);

    /// A terminal, by its class: there control and a letter mean something of their own.
    bool isTerminal() const;

    /// Waits until the application has worked off what it got so far: it answers a window manager's ping in
    /// the order of its events. At most 4 s. For an application that knows no pings it is a guess: 100 ms,
    /// more on a machine that is overloaded.
    void settle();

private:
    /// The window with the focus and those it stands in, innermost first, without the root.
    std::vector<xcb_window_t> ancestry() const;
    xcb_window_t windowUnderPointer() const;
    std::optional<xcb_window_t> pingable() const;
    std::string classOf(xcb_window_t window) const;
    bool waitFor(const std::function<bool(const xcb_generic_event_t&)>& isIt,
                 std::chrono::milliseconds limit);

    const XConnection& connection_;
    const OnEvent onOtherEvent_;
    const xcb_atom_t protocols_, ping_;
    bool listens_ = false;  // to the root, where answers go
    std::uint32_t serial_ = 0;
};

}  // namespace velmora
