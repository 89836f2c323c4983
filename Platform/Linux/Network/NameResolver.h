#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Platform/Linux/Network/SocketAddress.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Finds the addresses of `host`, in the system's order of preference. A numeric address is told at once, on
/// the calling thread; a name is looked up on a thread of its own, which may take as long as the system's
/// resolver likes: it is told there, and who has lost interest drops it.
void resolveHost(const std::string& host, std::uint16_t port,
                 std::function<void(Result<std::vector<SocketAddress>>)> completion);

}  // namespace velmora
