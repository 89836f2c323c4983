#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>

#include "Rendezvous/ClientPort.h"
#include "Rendezvous/ClientStream.h"
#include "Rendezvous/TlsContext.h"
#include "Rendezvous/WebContext.h"

namespace velmora {

/// One connection of a client: an HTTP request, and what comes of it: a page, an answer to a device list, or
/// a WebSocket until either side ends it. Lives on the thread of its io_context, and on until `onEnd`.
class WebSession : public ClientPort {
public:
    /// Set before start(); called once, last of all.
    std::function<void()> onEnd;

    virtual void start() = 0;
    /// About once a second: deadlines and pings.
    virtual void beat() = 0;
    /// Ends it at once.
    virtual void drop() = 0;
};

/// `tls`: none for one in the clear; it keeps its own reference.
std::shared_ptr<WebSession> makeWebSession(SocketId id, ClientAddress from, ClientStream::Socket socket,
                                           const TlsContext& tls, WebContext& context);

}  // namespace velmora
