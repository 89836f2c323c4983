#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/DatagramFlow.h"
#include "VelmoraKit/Transport/Endpoint.h"
#include "VelmoraKit/Transport/QUICSetup.h"
#include "VelmoraKit/Transport/Stream.h"
#include "VelmoraKit/Transport/TransportState.h"

namespace velmora {

/// One QUIC connection: its streams and its datagrams. At a viewer it is made for an endpoint and opens
/// them; at a host it comes from a Listener and they arrive. When its last stream and flow have been
/// cancelled the connection closes. Callbacks arrive on the queue given to `start`. The group may be
/// dropped while streams and flow of it live on.
class ConnectionGroup {
public:
    virtual ~ConnectionGroup() = default;

    std::function<void(TransportState, const std::optional<TransportError>&)> onState;
    /// A stream arrives with its first byte, the flow with its first datagram. Both arrive ready: `start`
    /// them to hear anything.
    std::function<void(std::shared_ptr<Stream>)> onStream;
    std::function<void(std::shared_ptr<DatagramFlow>)> onDatagramFlow;

    virtual void start(Queue& queue) = 0;
    virtual void cancel() = 0;
    virtual TransportState state() const = 0;

    /// Opens a stream towards the peer; it becomes ready once the group is. None after the end.
    virtual std::shared_ptr<Stream> openStream() = 0;
    /// Takes the datagrams of this connection: none if the peer does not accept datagrams or they were
    /// taken already. Only on a ready group.
    virtual std::shared_ptr<DatagramFlow> openDatagramFlow() = 0;

    virtual std::string remoteDescription() const = 0;
};

/// Accepts groups on one UDP port.
class Listener {
public:
    virtual ~Listener() = default;

    std::function<void(TransportState, const std::optional<TransportError>&)> onState;
    std::function<void(std::shared_ptr<ConnectionGroup>)> onGroup;

    virtual void start(Queue& queue) = 0;
    /// No further groups; those handed over live on.
    virtual void cancel() = 0;
    virtual TransportState state() const = 0;
};

/// The QUIC stack, as the roles see it. One per process; thread-safe.
class TransportStack {
public:
    virtual ~TransportStack() = default;

    /// A group that will connect when started. A service endpoint is resolved then.
    virtual std::shared_ptr<ConnectionGroup> connectTo(const Endpoint& endpoint,
                                                       const QUICSetup::Parameters& parameters) = 0;
    /// A listener on `port`, not yet bound: a port in use shows as `failed` with EADDRINUSE.
    virtual std::unique_ptr<Listener> listenOn(std::uint16_t port,
                                               const QUICSetup::Parameters& parameters) = 0;
};

}  // namespace velmora
