#include "Platform/Linux/Network/SocketAddress.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace velmora {

namespace {

sockaddr_in6 mapped(const in_addr& address, in_port_t port) {
    sockaddr_in6 result{};
    result.sin6_family = AF_INET6;
    result.sin6_port = port;
    result.sin6_addr.s6_addr[10] = result.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&result.sin6_addr.s6_addr[12], &address, sizeof address);
    return result;
}

}  // namespace

SocketAddress::SocketAddress() : address_{} {
    address_.sin6_family = AF_INET6;
}

std::optional<SocketAddress> SocketAddress::parse(std::string_view host, std::uint16_t port) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    SocketAddress result;
    in_addr four{};
    if (inet_pton(AF_INET, std::string(host).c_str(), &four) == 1) {
        result.address_ = mapped(four, htons(port));
        return result;
    }
    const auto percent = host.find('%');
    if (inet_pton(AF_INET6, std::string(host.substr(0, percent)).c_str(), &result.address_.sin6_addr) != 1)
        return std::nullopt;
    result.address_.sin6_port = htons(port);
    if (percent != std::string_view::npos) {
        const std::string scope(host.substr(percent + 1));
        result.address_.sin6_scope_id = if_nametoindex(scope.c_str());
        const bool isNumber =
            !scope.empty() && scope.size() < 10 && std::all_of(scope.begin(), scope.end(), ::isdigit);
        if (result.address_.sin6_scope_id == 0 && isNumber)
            result.address_.sin6_scope_id = static_cast<std::uint32_t>(std::stoul(scope));
    }
    return result;
}

std::optional<SocketAddress> SocketAddress::from(const sockaddr* address, socklen_t length) {
    SocketAddress result;
    if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
        sockaddr_in four;
        std::memcpy(&four, address, sizeof four);
        result.address_ = mapped(four.sin_addr, four.sin_port);
        return result;
    }
    if (address->sa_family != AF_INET6 || length < sizeof(sockaddr_in6)) return std::nullopt;
    std::memcpy(&result.address_, address, sizeof result.address_);
    result.address_.sin6_flowinfo = 0;
    return result;
}

SocketAddress SocketAddress::of(const in6_addr& address, std::uint32_t interface) {
    SocketAddress result;
    result.address_.sin6_addr = address;
    if (IN6_IS_ADDR_LINKLOCAL(&address)) result.address_.sin6_scope_id = interface;
    return result;
}

SocketAddress SocketAddress::of(const in_addr& address) {
    SocketAddress result;
    result.address_ = mapped(address, 0);
    return result;
}

SocketAddress SocketAddress::withPort(std::uint16_t port) const {
    SocketAddress result = *this;
    result.address_.sin6_port = htons(port);
    return result;
}

sockaddr_in SocketAddress::v4() const {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = address_.sin6_port;
    std::memcpy(&result.sin_addr, &address_.sin6_addr.s6_addr[12], sizeof result.sin_addr);
    return result;
}

std::string SocketAddress::hostText() const {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (isIPv4()) {
        const in_addr four = v4().sin_addr;
        inet_ntop(AF_INET, &four, text.data(), text.size());
        return text.data();
    }
    inet_ntop(AF_INET6, &address_.sin6_addr, text.data(), text.size());
    std::string result = text.data();
    std::array<char, IF_NAMESIZE> interface {};
    if (address_.sin6_scope_id != 0 && if_indextoname(address_.sin6_scope_id, interface.data()))
        result += fmt::format("%{}", interface.data());
    return result;
}

std::string SocketAddress::text() const {
    return isIPv4() ? fmt::format("{}:{}", hostText(), port()) : fmt::format("[{}]:{}", hostText(), port());
}

bool SocketAddress::operator==(const SocketAddress& other) const {
    return address_.sin6_port == other.address_.sin6_port &&
           address_.sin6_scope_id == other.address_.sin6_scope_id &&
           std::memcmp(&address_.sin6_addr, &other.address_.sin6_addr, sizeof address_.sin6_addr) == 0;
}

}  // namespace velmora
