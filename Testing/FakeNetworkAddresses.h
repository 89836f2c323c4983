#pragma once

#include <string>
#include <vector>

#include "Platform/NetworkAddresses.h"

namespace velmora {

class FakeNetworkAddresses final : public NetworkAddresses {
public:
    std::vector<std::string> localIPv4() const override { return addresses; }
    std::vector<std::string> addresses{"192.0.2.10"};
};

}  // namespace velmora
