#include "Platform/Linux/Display/XConnection.h"

#include <fmt/format.h>

#include <mutex>

namespace velmora {

namespace {

/// One at a time: the library that finds the authority file keeps its name in a static buffer.
xcb_connection_t* connect(const std::string& display, int& preferredScreen) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    return xcb_connect(display.c_str(), &preferredScreen);
}

}  // namespace

Result<std::unique_ptr<XConnection>> XConnection::open(const std::string& display) {
    const char* fromEnvironment = std::getenv("DISPLAY");
    const std::string name = display.empty() && fromEnvironment ? fromEnvironment : display;
    if (name.empty()) return Failure{"there is no X server here (DISPLAY is not set)"};
    int preferred = 0;
    xcb_connection_t* connection = connect(name, preferred);
    if (const int error = xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        return Failure{fmt::format("the X server {} cannot be reached", name), error};
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < preferred && screens.rem > 1; ++i) xcb_screen_next(&screens);
    return std::unique_ptr<XConnection>(new XConnection(connection, screens.data));
}

XConnection::~XConnection() {
    xcb_disconnect(connection_);
}

const xcb_query_extension_reply_t* XConnection::extension(xcb_extension_t& id) const {
    const auto* data = xcb_get_extension_data(connection_, &id);
    return data != nullptr && data->present != 0 ? data : nullptr;
}

}  // namespace velmora
