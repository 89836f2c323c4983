#include "Platform/Linux/System/XDisplayPower.h"

#include <xcb/dpms.h>
#include <xcb/screensaver.h>
#include <xcb/xcb.h>

#include <cstdlib>

namespace velmora {
namespace {

bool has(xcb_connection_t* connection, xcb_extension_t* extension) {
    const auto* data = xcb_get_extension_data(connection, extension);
    return data && data->present;
}

/// Waits for the server: a request is only done when it says so.
bool succeeded(xcb_connection_t* connection, xcb_void_cookie_t cookie) {
    xcb_generic_error_t* error = xcb_request_check(connection, cookie);
    const bool isFine = !error && !xcb_connection_has_error(connection);
    std::free(error);
    return isFine;
}

}  // namespace

XDisplayPower::XDisplayPower() = default;

XDisplayPower::~XDisplayPower() {
    if (connection_) xcb_disconnect(connection_);
}

bool XDisplayPower::connect() {
    if (connection_ && !xcb_connection_has_error(connection_)) return true;
    if (connection_) xcb_disconnect(connection_);
    connection_ = nullptr;
    suspensions_ = 0;
    if (!std::getenv("DISPLAY")) return false;
    connection_ = xcb_connect(nullptr, nullptr);
    return !xcb_connection_has_error(connection_);
}

Status XDisplayPower::suspendScreenSaver() {
    if (!connect()) return Failure{"no X display"};
    if (!has(connection_, &xcb_screensaver_id)) return Failure{"the X server has no screen saver extension"};
    // The server ignores requests of a version that was not agreed on.
    std::free(xcb_screensaver_query_version_reply(connection_,
                                                  xcb_screensaver_query_version(connection_, 1, 1), nullptr));
    if (!succeeded(connection_, xcb_screensaver_suspend_checked(connection_, 1))) {
        return Failure{"the X server refused"};
    }
    ++suspensions_;
    return Done{};
}

void XDisplayPower::resumeScreenSaver() {
    if (!connection_ || suspensions_ == 0) return;
    --suspensions_;
    xcb_screensaver_suspend(connection_, 0);
    xcb_flush(connection_);
}

Status XDisplayPower::wake() {
    if (!connect()) return Failure{"no X display"};
    const bool isAwake =
        succeeded(connection_, xcb_force_screen_saver_checked(connection_, XCB_SCREEN_SAVER_RESET));
    if (has(connection_, &xcb_dpms_id)) {
        // Refused while power saving is disabled; the display is on then.
        succeeded(connection_, xcb_dpms_force_level_checked(connection_, XCB_DPMS_DPMS_MODE_ON));
    }
    if (!isAwake) return Failure{"the X server refused"};
    return Done{};
}

}  // namespace velmora
