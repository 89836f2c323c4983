#include "Platform/Linux/Network/LinuxNetworkAddresses.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace velmora {

std::vector<std::string> LinuxNetworkAddresses::localIPv4() const {
    std::vector<std::string> addresses;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return addresses;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        const bool isUsable = (entry->ifa_flags & (IFF_UP | IFF_LOOPBACK)) == IFF_UP;
        if (!isUsable || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        std::array<char, NI_MAXHOST> text{};
        if (::getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), text.data(), text.size(), nullptr, 0,
                          NI_NUMERICHOST) != 0) {
            continue;
        }
        const std::string address(text.data());
        if (address.starts_with("169.254.")) continue;
        if (std::ranges::find(addresses, address) == addresses.end()) addresses.push_back(address);
    }
    ::freeifaddrs(list);
    return addresses;
}

}  // namespace velmora
