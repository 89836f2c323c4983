#pragma once

#include "Platform/NetworkAddresses.h"

namespace velmora {

/// The kernel's list of interfaces.
class LinuxNetworkAddresses final : public NetworkAddresses {
public:
    std::vector<std::string> localIPv4() const override;
};

}  // namespace velmora
