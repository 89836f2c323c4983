#include "Platform/Linux/Network/NameResolver.h"

#include <fmt/format.h>
#include <netdb.h>

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

namespace velmora {

namespace {

Result<std::vector<SocketAddress>> lookUp(const std::string& host, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    if (const int status = getaddrinfo(host.c_str(), nullptr, &hints, &found); status != 0)
        return Failure{fmt::format("{}: {}", host, gai_strerror(status)), status == EAI_SYSTEM ? errno : 0};
    std::vector<SocketAddress> addresses;
    for (const addrinfo* one = found; one; one = one->ai_next) {
        if (const auto address = SocketAddress::from(one->ai_addr, one->ai_addrlen))
            addresses.push_back(address->withPort(port));
    }
    freeaddrinfo(found);
    if (addresses.empty()) return Failure{fmt::format("{}: no address", host)};
    return addresses;
}

}  // namespace

void resolveHost(const std::string& host, std::uint16_t port,
                 std::function<void(Result<std::vector<SocketAddress>>)> completion) {
    if (const auto address = SocketAddress::parse(host, port)) return completion(std::vector{*address});
    try {
        // Detached, since getaddrinfo cannot be interrupted and nobody may wait for it at the end.
        std::thread([host, port, completion] { completion(lookUp(host, port)); }).detach();
    } catch (const std::system_error& error) {
        completion(Failure{fmt::format("{}: {}", host, error.what()), error.code().value()});
    }
}

}  // namespace velmora
