#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/Linux/Network/PacketBatch.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// One unconnected UDP socket, for IPv6 and IPv4 at once where the machine has IPv6. Non-blocking; used by
/// the network thread only. Sends runs of equal packets in one call (GSO) and receives them so (GRO), which
/// costs two and a half times less; where the kernel or the interface refuses, single packets are sent.
///
/// It is bound with neither SO_REUSEADDR nor SO_REUSEPORT: two sockets on one port steal each other's
/// packets, and a second program must see EADDRINUSE.
class UdpSocket {
public:
    enum class Families { both, ipv4 };
    /// `port` 0 lets the system choose. The failure's code is the errno. Without IPv6 in the kernel it is
    /// IPv4 alone, whatever was asked for.
    static Result<std::unique_ptr<UdpSocket>> bindTo(std::uint16_t port, Families families = Families::both);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int descriptor() const { return descriptor_; }
    std::uint16_t port() const { return local_.port(); }
    const SocketAddress& local() const { return local_; }

    /// Sends from the front of `batch` what the kernel takes now and removes it; what remains waits for the
    /// socket to become writable. A packet that cannot leave (too large for the interface, no route) is
    /// removed too: to QUIC it is lost.
    void send(PacketBatch& batch);
    /// The first reason for such a loss since the last call, but for packets that were too large; 0: none.
    struct SendError {
        int code = 0;
        SocketAddress to;
    };
    SendError takeLastError() { return std::exchange(lastError_, {}); }

    /// Reads what has arrived, up to a bound that keeps timers punctual, and hands over each packet. `to` is
    /// the address of this machine that it was sent to.
    using Arrival = UniqueFunction<void(ByteView packet, const SocketAddress& from, const SocketAddress& to)>;
    void receive(Arrival& arrival);

private:
    UdpSocket(int descriptor, bool dualStack);
    std::size_t runLength(const PacketBatch& batch) const;
    int sendRun(const PacketBatch& batch, std::size_t count);
    bool sendSingly(PacketBatch& batch, std::size_t count, int reason);
    void dropFirst(PacketBatch& batch, int error);

    const int descriptor_;
    const bool dualStack_;
    SocketAddress local_;
    bool segmentation_ = true;
    SendError lastError_;
};

}  // namespace velmora
