#include "VelmoraKit/Transport/Endpoint.h"

#include <fmt/format.h>

#include <utility>

namespace velmora {

Endpoint Endpoint::hostPort(std::string host, std::uint16_t port) {
    Endpoint endpoint;
    endpoint.host = std::move(host);
    endpoint.port = port;
    return endpoint;
}

Endpoint Endpoint::service(std::string name, std::string type, std::string domain) {
    Endpoint endpoint;
    endpoint.kind = Kind::service;
    endpoint.serviceName = std::move(name);
    endpoint.serviceType = std::move(type);
    endpoint.serviceDomain = std::move(domain);
    return endpoint;
}

std::string Endpoint::text() const {
    if (kind == Kind::service) return fmt::format("{}.{}.{}", serviceName, serviceType, serviceDomain);
    const bool bare6 = host.find(':') != std::string::npos && !host.starts_with('[');
    return bare6 ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port);
}

}  // namespace velmora
