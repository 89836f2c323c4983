#pragma once

#include <string>

#include "Platform/Linux/Network/SocketAddress.h"

namespace velmora {

/// The network interface through which packets to `remote` leave now: "eth0 (wired)", "wlan0 (wifi)",
/// "lo (loopback)", "tun0 (other)"; "?" if the system does not tell. Any thread; asks the kernel, sends
/// nothing.
std::string describeInterfaceTowards(const SocketAddress& remote);

}  // namespace velmora
