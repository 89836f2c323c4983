#pragma once

#include <chrono>
#include <memory>

#include "Platform/ServiceDiscovery.h"

namespace velmora {

/// DNS-SD through the Avahi daemon, or through a responder of our own while no daemon runs. Everything
/// happens on a thread of its own. When the daemon comes or goes, requests move over by themselves.
class AvahiServiceDiscovery final : public ServiceDiscovery {
public:
    struct Parameters {
        std::chrono::milliseconds daemonGrace{700};        // a daemon that is starting or renaming itself
        std::chrono::milliseconds retryInterval{10'000};   // looking for a bus, trying again what failed
        std::chrono::milliseconds betterAddressWait{300};  // for an IPv4 address when another one came first
    };
    AvahiServiceDiscovery() : AvahiServiceDiscovery(Parameters()) {}
    explicit AvahiServiceDiscovery(const Parameters& parameters);
    /// Withdraws what is still published.
    ~AvahiServiceDiscovery() override;

    std::unique_ptr<Request> publish(const Service& service, Queue& queue,
                                     std::function<void(const std::string& name)> onPublished) override;
    std::unique_ptr<Request> browse(const std::string& type, Queue& queue,
                                    std::function<void(std::vector<FoundService>)> onChange) override;
    std::unique_ptr<Request> resolve(const ServiceName& service, std::chrono::milliseconds limit,
                                     Queue& queue,
                                     std::function<void(Result<ResolvedService>)> onResolved) override;

private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};

}  // namespace velmora
