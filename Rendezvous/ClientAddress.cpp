#include "Rendezvous/ClientAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace velmora {
namespace {

std::string textOf(int family, const void* address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(family, address, text.data(), text.size());
    return text.data();
}

}  // namespace

std::optional<ClientAddress> ClientAddress::parse(std::string_view given) {
    const std::string text(given);
    in_addr four{};
    if (inet_pton(AF_INET, text.c_str(), &four) == 1) {
        const std::string shown = textOf(AF_INET, &four);
        return ClientAddress{shown, shown};
    }
    in6_addr six{};
    if (inet_pton(AF_INET6, text.c_str(), &six) != 1) return std::nullopt;
    if (IN6_IS_ADDR_V4MAPPED(&six)) {
        const std::string shown = textOf(AF_INET, &six.s6_addr[12]);
        return ClientAddress{shown, shown};
    }
    ClientAddress address{textOf(AF_INET6, &six), {}};
    std::fill(std::begin(six.s6_addr) + 8, std::end(six.s6_addr), std::uint8_t{0});
    address.network = textOf(AF_INET6, &six) + "/64";
    return address;
}

bool isSocketAddress(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
    std::string_view host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    return error == std::errc{} && stop == end && port != 0 && ClientAddress::parse(host).has_value();
}

}  // namespace velmora
