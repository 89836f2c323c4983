#pragma once

#include "VelmoraKit/Core/Result.h"

struct xcb_connection_t;

namespace velmora {

/// Screen saver and display power of the X server, where the desktop offers no service for them. Lives on
/// one queue.
class XDisplayPower {
public:
    XDisplayPower();
    ~XDisplayPower();
    XDisplayPower(const XDisplayPower&) = delete;
    XDisplayPower& operator=(const XDisplayPower&) = delete;

    /// Holds screen saver and power saving off; ends with the connection too. May be nested.
    Status suspendScreenSaver();
    void resumeScreenSaver();
    /// Switches a dark display on.
    Status wake();

private:
    bool connect();

    xcb_connection_t* connection_ = nullptr;
    int suspensions_ = 0;
};

}  // namespace velmora
