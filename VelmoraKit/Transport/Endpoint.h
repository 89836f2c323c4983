#pragma once

#include <cstdint>
#include <string>

namespace velmora {

/// Where a host may be reached: an address or name with a port, or a service found on the network, which is
/// resolved when a connection is made.
struct Endpoint {
    enum class Kind { hostAndPort, service };

    Kind kind = Kind::hostAndPort;
    std::string host;        // address (v4, v6 without brackets) or DNS name
    std::uint16_t port = 0;  // of hostAndPort
    std::string serviceName, serviceType, serviceDomain;

    static Endpoint hostPort(std::string host, std::uint16_t port);
    static Endpoint service(std::string name, std::string type, std::string domain);

    /// The form in log lines and in preference keys: "10.0.0.5:47272", "[::1]:47272",
    /// "Name._velmora._udp.local.".
    std::string text() const;

    bool operator==(const Endpoint&) const = default;
};

}  // namespace velmora
