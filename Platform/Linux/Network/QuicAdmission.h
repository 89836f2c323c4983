#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Platform/Linux/Network/PacketBatch.h"
#include "Platform/Linux/Network/QuicConnection.h"

namespace velmora {

/// Decides about packets of connections that a host does not know: let in, send to prove the address first,
/// or ignore. A stranger costs little and is never answered with more than it sent. Pure: packets and time
/// in, packets and a decision out.
class QuicAdmission {
public:
    struct Parameters {
        std::size_t retryAbove = 16;   // half-open connections; beyond them an address must prove itself
        std::size_t maxHalfOpen = 64;  // about 120 KiB each, nearly all of it the TLS library's
        std::size_t versionNegotiationsPerSecond = 10;
    };

    explicit QuicAdmission(Parameters parameters);

    /// What to accept, if anything. `halfOpen`: connections whose handshake is under way. An answer to the
    /// packet, if one is due, is added to `out`.
    std::optional<QuicConnection::Initial> consider(ByteView packet, const SocketAddress& from,
                                                    std::size_t halfOpen, PacketBatch& out,
                                                    HostClock::time_point now);

private:
    void sendRetry(const ngtcp2_pkt_hd& header, const SocketAddress& from, PacketBatch& out,
                   HostClock::time_point now);
    void sendVersions(const ngtcp2_version_cid& ids, const SocketAddress& from, PacketBatch& out,
                      HostClock::time_point now);

    const Parameters parameters_;
    std::array<std::uint8_t, 32> secret_;  // for Retry tokens
    HostClock::time_point versionsSince_{};
    std::size_t versionsSent_ = 0;
};

}  // namespace velmora
