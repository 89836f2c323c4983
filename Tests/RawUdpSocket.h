#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Network/SocketAddress.h"
#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// A plain IPv4 socket on the loopback, for tests: a stranger, or a server of another protocol.
class RawUdpSocket {
public:
    explicit RawUdpSocket(std::uint16_t port = 0, std::uint32_t address = INADDR_LOOPBACK)
        : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_port = htons(port);
        own.sin_addr.s_addr = htonl(address);
        if (bind(descriptor_, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) bindError_ = errno;
    }
    ~RawUdpSocket() { ::close(descriptor_); }
    RawUdpSocket(const RawUdpSocket&) = delete;
    RawUdpSocket& operator=(const RawUdpSocket&) = delete;

    int descriptor() const { return descriptor_; }
    int bindError() const { return bindError_; }
    std::uint16_t port() const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&own), &size);
        return ntohs(own.sin_port);
    }
    void send(ByteView bytes, std::uint16_t toPort, std::uint32_t address = INADDR_LOOPBACK) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(toPort);
        to.sin_addr.s_addr = htonl(address);
        sendto(descriptor_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    struct Arrived {
        Bytes bytes;
        std::uint16_t fromPort = 0;
        std::string fromHost;
    };
    /// The next packet; none if none comes within `limit`.
    std::optional<Arrived> receive(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        pollfd readable{descriptor_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
        Arrived arrived{Bytes(65536)};
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const auto count = recvfrom(descriptor_, arrived.bytes.data(), arrived.bytes.size(), 0,
                                    reinterpret_cast<sockaddr*>(&from), &size);
        if (count < 0) return std::nullopt;
        arrived.bytes.resize(static_cast<std::size_t>(count));
        arrived.fromPort = ntohs(from.sin_port);
        arrived.fromHost = SocketAddress::of(from.sin_addr).hostText();
        return arrived;
    }

private:
    const int descriptor_;
    int bindError_ = 0;
};

}  // namespace velmora
