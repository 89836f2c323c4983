#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Platform/ServiceDiscovery.h"

namespace velmora {

/// A local network of one process: what is published on it is browsed and resolved on it. All queues of its
/// requests belong to one thread, or to one virtual time.
class FakeServiceDiscovery final : public ServiceDiscovery {
public:
    std::unique_ptr<Request> publish(const Service& service, Queue& queue,
                                     std::function<void(const std::string& name)> onPublished) override;
    std::unique_ptr<Request> browse(const std::string& type, Queue& queue,
                                    std::function<void(std::vector<FoundService>)> onChange) override;
    std::unique_ptr<Request> resolve(const ServiceName& service, std::chrono::milliseconds limit,
                                     Queue& queue,
                                     std::function<void(Result<ResolvedService>)> onResolved) override;

    /// Where everything resolves to.
    std::string address = "192.0.2.7";

private:
    class Published;
    class Browsing;
    class Resolving;
    void changed();

    std::map<ServiceName, Service> published_;
    std::vector<Browsing*> browsing_;
    std::vector<Resolving*> resolving_;
};

}  // namespace velmora
