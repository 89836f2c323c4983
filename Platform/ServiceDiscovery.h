#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// DNS-SD on the local network: publishing a service, browsing a type, resolving one service. Each request
/// is held by the token it gives: destroying it (on the queue of its callbacks) ends it, and nothing is told
/// afterwards. Requests may be made before the network or the system's responder is there; they take effect
/// when it comes and again when it comes back. Tokens do not outlive the service.
class ServiceDiscovery {
public:
    using TxtRecord = std::map<std::string, std::string>;

    /// `type` such as "_velmora._udp"; `domain` such as "local", empty for the default one.
    struct ServiceName {
        std::string name;
        std::string type;
        std::string domain;
        auto operator<=>(const ServiceName&) const = default;
    };
    struct Service {
        std::string name;  // any text; cut at 63 bytes of UTF-8
        std::string type;
        std::uint16_t port = 0;
        TxtRecord txt;
    };
    struct FoundService {
        ServiceName service;
        TxtRecord txt;
        bool operator==(const FoundService&) const = default;
    };
    struct ResolvedService {
        std::string address;  // numeric; a link-local IPv6 address with its "%interface"
        std::uint16_t port = 0;
        TxtRecord txt;
        bool operator==(const ResolvedService&) const = default;
    };

    class Request {
    public:
        virtual ~Request() = default;
    };

    virtual ~ServiceDiscovery() = default;

    /// Advertises `service`. `onPublished` tells the name in use each time it is established: another machine
    /// of the same name makes it "Name #2". It may be unset.
    [[nodiscard]] virtual std::unique_ptr<Request> publish(
        const Service& service, Queue& queue, std::function<void(const std::string& name)> onPublished) = 0;

    /// Tells the whole set of services of `type` now and at every change, sorted, each once, whatever the
    /// number of interfaces it is seen on.
    [[nodiscard]] virtual std::unique_ptr<Request> browse(
        const std::string& type, Queue& queue, std::function<void(std::vector<FoundService>)> onChange) = 0;

    /// Finds where `service` is now; an IPv4 address when it has both. Told once: the place, or a failure
    /// when `limit` has passed.
    [[nodiscard]] virtual std::unique_ptr<Request> resolve(
        const ServiceName& service, std::chrono::milliseconds limit, Queue& queue,
        std::function<void(Result<ResolvedService>)> onResolved) = 0;
};

}  // namespace velmora
