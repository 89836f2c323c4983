#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

/// Where a client comes from.
struct ClientAddress {
    std::string text;  // without a port: "192.0.2.1", "2001:db8::1"; an IPv4 address in IPv6 is shown as IPv4
    std::string network;  // what limits count by: the IPv4 address, or the /64 that one IPv6 customer has

    /// None if `text` is no numeric address.
    static std::optional<ClientAddress> parse(std::string_view text);
    bool isLoopback() const { return text == "::1" || text.starts_with("127."); }
    bool operator==(const ClientAddress&) const = default;
};

/// Whether `text` is "ip:port" of something that can be sent to.
bool isSocketAddress(std::string_view text);

}  // namespace velmora
