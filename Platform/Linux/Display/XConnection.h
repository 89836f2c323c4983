#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
/// A reply or event of xcb; empty when the request failed or the server is gone.
template <class T>
using XReply = std::unique_ptr<T, FreeDeleter>;

/// One client connection to the X server. Unlike Xlib's, its end is a value to look at, never an exit of the
/// process. As thread-safe as xcb: any thread may ask, but one that waits for a reply may pull events that
/// another thread is polling for, so give each thread that wants events a connection of its own.
class XConnection {
public:
    /// `display` such as ":0"; empty means what DISPLAY says. Fails in words.
    static Result<std::unique_ptr<XConnection>> open(const std::string& display = {});
    ~XConnection();
    XConnection(const XConnection&) = delete;
    XConnection& operator=(const XConnection&) = delete;

    xcb_connection_t* get() const { return connection_; }
    operator xcb_connection_t*() const { return connection_; }  // NOLINT: every xcb call takes it
    const xcb_setup_t& setup() const { return *xcb_get_setup(connection_); }
    const xcb_screen_t& screen() const { return *screen_; }
    xcb_window_t root() const { return screen_->root; }

    /// The server went away, or hung up on us. For good.
    bool isBroken() const { return xcb_connection_has_error(connection_) != 0; }
    /// What the server says of an extension; null when it has none. Belongs to the connection.
    const xcb_query_extension_reply_t* extension(xcb_extension_t& id) const;
    /// Waits for the answer to a request: `reply(xcb_get_atom_name_reply, cookie)`.
    template <class R, class Cookie>
    XReply<R> reply(R* (*wait)(xcb_connection_t*, Cookie, xcb_generic_error_t**), Cookie cookie) const {
        return XReply<R>(wait(connection_, cookie, nullptr));
    }
    /// The next event that has arrived; empty when there is none. Never waits.
    XReply<xcb_generic_event_t> pollEvent() const {
        return XReply<xcb_generic_event_t>(xcb_poll_for_event(connection_));
    }

private:
    XConnection(xcb_connection_t* connection, xcb_screen_t* screen)
        : connection_(connection), screen_(screen) {}
    xcb_connection_t* const connection_;
    xcb_screen_t* const screen_;
};

}  // namespace velmora
