#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// A UDP address and port. IPv4 is kept as a v4-mapped IPv6 address, the form in which a dual-stack socket
/// tells it, so that equal places compare equal; it is shown as plain IPv4.
class SocketAddress {
public:
    SocketAddress();  // [::]:0

    /// A numeric address; a link-local IPv6 one may carry its "%interface". None for a name.
    static std::optional<SocketAddress> parse(std::string_view host, std::uint16_t port);
    static std::optional<SocketAddress> from(const sockaddr* address, socklen_t length);

    /// An address without a port, as the kernel tells which of its own a packet was sent to. The interface
    /// only counts for a link-local one.
    static SocketAddress of(const in6_addr& address, std::uint32_t interface);
    static SocketAddress of(const in_addr& address);

    std::uint16_t port() const { return ntohs(address_.sin6_port); }
    bool isIPv4() const { return IN6_IS_ADDR_V4MAPPED(&address_.sin6_addr); }
    SocketAddress withPort(std::uint16_t port) const;

    const sockaddr_in6& v6() const { return address_; }
    sockaddr_in v4() const;  // meaningful if isIPv4()
    /// The address as the QUIC library wants it; it only compares and copies it.
    const sockaddr* raw() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t rawSize() const { return sizeof address_; }

    std::string hostText() const;
    std::string text() const;  // "10.0.0.5:47272", "[fe80::1]:47272"

    bool operator==(const SocketAddress& other) const;

private:
    sockaddr_in6 address_;
};

}  // namespace velmora
