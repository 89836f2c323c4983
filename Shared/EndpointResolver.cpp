#include "Shared/EndpointResolver.h"

#include <fmt/format.h>

#include <utility>

namespace velmora {

void EndpointResolver::resolve(const Endpoint& service, std::function<void(Result<Endpoint>)> completion) {
    queue_.post(liveness_.guard([this, service, completion = std::move(completion)]() mutable {
        begin(service, std::move(completion));
    }));
}

void EndpointResolver::begin(const Endpoint& service, std::function<void(Result<Endpoint>)> completion) {
    const auto id = ++lastRequest_;
    requests_[id] = discovery_.resolve(
        {service.serviceName, service.serviceType, service.serviceDomain}, parameters_.limit, queue_,
        [this, id, text = service.text(),
         completion = std::move(completion)](Result<ServiceDiscovery::ResolvedService> found) {
            // Later: the request is in the middle of this call.
            queue_.post(liveness_.guard([this, id] { requests_.erase(id); }));
            if (!found) return completion(Failure{fmt::format("{}: {}", text, found.error().text)});
            completion(Endpoint::hostPort(found->address, found->port));
        });
}

}  // namespace velmora
