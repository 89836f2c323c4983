#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "Platform/ServiceDiscovery.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Transport/Endpoint.h"

namespace velmora {

/// Tells the transport where a service found on the local network is, each time a connection is made to it.
/// Lives on `queue`; outlives the transport.
class EndpointResolver {
public:
    struct Parameters {
        std::chrono::milliseconds limit{5'000};  // a machine that is there answers within one
    };

    /// Both outlive us.
    EndpointResolver(ServiceDiscovery& discovery, Queue& queue)
        : EndpointResolver(discovery, queue, Parameters()) {}
    EndpointResolver(ServiceDiscovery& discovery, Queue& queue, const Parameters& parameters)
        : discovery_(discovery), queue_(queue), parameters_(parameters) {}

    /// From any thread. `completion` runs once, on the queue: with a host and a port, or with a failure. It
    /// does not run once we are gone.
    void resolve(const Endpoint& service, std::function<void(Result<Endpoint>)> completion);

private:
    void begin(const Endpoint& service, std::function<void(Result<Endpoint>)> completion);

    ServiceDiscovery& discovery_;
    Queue& queue_;
    const Parameters parameters_;
    std::map<std::uint64_t, std::unique_ptr<ServiceDiscovery::Request>> requests_;
    std::uint64_t lastRequest_ = 0;
    Liveness liveness_;
};

}  // namespace velmora
