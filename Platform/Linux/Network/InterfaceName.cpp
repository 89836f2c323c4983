#include "Platform/Linux/Network/InterfaceName.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

namespace velmora {

namespace {

/// The address that the kernel would send from: connecting a UDP socket chooses it without a packet.
std::optional<SocketAddress> sourceTowards(const SocketAddress& remote) {
    const int probe = socket(remote.isIPv4() ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return std::nullopt;
    const sockaddr_in four = remote.v4();
    const int status = remote.isIPv4() ? connect(probe, reinterpret_cast<const sockaddr*>(&four), sizeof four)
                                       : connect(probe, remote.raw(), remote.rawSize());
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    const bool known = status == 0 && getsockname(probe, reinterpret_cast<sockaddr*>(&local), &length) == 0;
    ::close(probe);
    if (!known) return std::nullopt;
    return SocketAddress::from(reinterpret_cast<const sockaddr*>(&local), length);
}

std::string_view typeOf(const std::string& name, unsigned flags) {
    namespace fs = std::filesystem;
    if (flags & IFF_LOOPBACK) return "loopback";
    const fs::path entry = fs::path("/sys/class/net") / name;
    std::error_code ignored;
    if (fs::exists(entry / "wireless", ignored) || fs::exists(entry / "phy80211", ignored)) return "wifi";
    if (fs::exists(entry / "tun_flags", ignored) || (flags & IFF_POINTOPOINT)) return "other";
    return "wired";
}

}  // namespace

std::string describeInterfaceTowards(const SocketAddress& remote) {
    const auto source = sourceTowards(remote);
    ifaddrs* raw = nullptr;
    if (!source || getifaddrs(&raw) != 0) return "?";
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> all(raw, freeifaddrs);
    for (const ifaddrs* one = raw; one; one = one->ifa_next) {
        if (!one->ifa_addr) continue;
        const socklen_t size =
            one->ifa_addr->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        const auto address = SocketAddress::from(one->ifa_addr, size);
        if (address && address->hostText() == source->hostText())
            return fmt::format("{} ({})", one->ifa_name, typeOf(one->ifa_name, one->ifa_flags));
    }
    return "?";
}

}  // namespace velmora
