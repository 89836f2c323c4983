#pragma once

#include <string>
#include <vector>

namespace velmora {

/// This machine's addresses. Any thread.
class NetworkAddresses {
public:
    virtual ~NetworkAddresses() = default;

    /// IPv4 addresses of the interfaces that are up, in the system's order, each once; without loopback and
    /// link-local ones. Empty if the system does not tell.
    virtual std::vector<std::string> localIPv4() const = 0;
};

}  // namespace velmora
