#pragma once

#include <optional>

#include "Platform/Linux/Display/XConnection.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Puts a thread to sleep until its X connection has something to read, another thread wakes it, or time is
/// up. Take all events with `pollEvent` before each wait: what xcb has read already makes no descriptor
/// readable.
class XEventWaiter {
public:
    explicit XEventWaiter();
    ~XEventWaiter();
    XEventWaiter(const XEventWaiter&) = delete;
    XEventWaiter& operator=(const XEventWaiter&) = delete;

    /// Ends the present wait, or the next one. Any thread.
    void wake();
    /// Sends what xcb still holds, then sleeps. No limit: as long as it takes.
    void wait(const XConnection& connection, std::optional<HostClock::duration> limit);

private:
    const int wakeFd_;
};

}  // namespace velmora
