#pragma once

#include <functional>
#include <memory>

#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Transport/UdpPort.h"

namespace velmora {

/// Everything that uses UDP ports: QUIC and the single datagrams that share its sockets.
class NetworkStack : public TransportStack, public UdpPort {};

/// Finds where a service endpoint is now, as an endpoint of host and port. May be called on the network
/// thread, so it does not block; the completion may come on any thread, and comes once.
using ServiceResolver = std::function<void(const Endpoint& service, std::function<void(Result<Endpoint>)>)>;

/// The stack on ngtcp2 and GnuTLS, with a thread of its own ("net"). One per process, since ports are shared
/// within one stack only. Destroying it lets what has been cancelled flush for up to half a second, closes
/// what is left, and joins; groups, streams and flows may outlive it and then merely report their end.
/// Without `resolveService` service endpoints fail.
std::unique_ptr<NetworkStack> makeQuicTransportStack(ServiceResolver resolveService = nullptr);

}  // namespace velmora
