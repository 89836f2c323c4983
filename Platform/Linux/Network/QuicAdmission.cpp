#include "Platform/Linux/Network/QuicAdmission.h"

#include <gnutls/crypto.h>

namespace velmora {

namespace {

constexpr std::size_t minInitialBytes = 1200;  // RFC 9000 section 14.1
constexpr ngtcp2_duration retryLifetime = 10 * NGTCP2_SECONDS;

ngtcp2_tstamp stampOf(HostClock::time_point t) {
    return HostClock::micros(t) * 1000;
}

}  // namespace

QuicAdmission::QuicAdmission(Parameters parameters) : parameters_(parameters) {
    gnutls_rnd(GNUTLS_RND_KEY, secret_.data(), secret_.size());
}

std::optional<QuicConnection::Initial> QuicAdmission::consider(ByteView packet, const SocketAddress& from,
                                                               std::size_t halfOpen, PacketBatch& out,
                                                               HostClock::time_point now) {
    if (packet.size() < minInitialBytes) return std::nullopt;
    ngtcp2_version_cid ids;
    const int known =
        ngtcp2_pkt_decode_version_cid(&ids, packet.data(), packet.size(), QuicConnection::idLength);
    if (known == NGTCP2_ERR_VERSION_NEGOTIATION) {
        sendVersions(ids, from, out, now);
        return std::nullopt;
    }
    QuicConnection::Initial initial;
    const int status = ngtcp2_accept(&initial.header, packet.data(), packet.size());
    if (status != 0 && status != NGTCP2_ERR_RETRY) return std::nullopt;
    if (initial.header.version != NGTCP2_PROTO_VER_V1) return std::nullopt;

    // Only a token that we gave out in a Retry means anything; any other counts as none, be it the single
    // byte that our own connections hand out against stalls, or junk.
    ngtcp2_cid original{};
    const auto& token = initial.header.token;
    const bool proven =
        token.len > 0 && token.base[0] == NGTCP2_CRYPTO_TOKEN_MAGIC_RETRY &&
        ngtcp2_crypto_verify_retry_token(&original, token.base, token.len, secret_.data(), secret_.size(),
                                         initial.header.version, from.raw(), from.rawSize(),
                                         &initial.header.dcid, retryLifetime, stampOf(now)) == 0;
    if (proven) initial.originalId = original;
    if (halfOpen >= parameters_.maxHalfOpen) return std::nullopt;
    if (!proven && halfOpen >= parameters_.retryAbove) {
        sendRetry(initial.header, from, out, now);
        return std::nullopt;
    }
    return initial;
}

void QuicAdmission::sendRetry(const ngtcp2_pkt_hd& header, const SocketAddress& from, PacketBatch& out,
                              HostClock::time_point now) {
    ngtcp2_cid id{};
    id.datalen = QuicConnection::idLength;
    gnutls_rnd(GNUTLS_RND_NONCE, id.data, id.datalen);
    std::array<std::uint8_t, NGTCP2_CRYPTO_MAX_RETRY_TOKENLEN> token;
    const auto tokenSize =
        ngtcp2_crypto_generate_retry_token(token.data(), secret_.data(), secret_.size(), header.version,
                                           from.raw(), from.rawSize(), &id, &header.dcid, stampOf(now));
    if (tokenSize < 0) return;
    const auto room = out.room(minInitialBytes);
    const auto size =
        ngtcp2_crypto_write_retry(room.data(), room.size(), header.version, &header.scid, &id, &header.dcid,
                                  token.data(), static_cast<std::size_t>(tokenSize));
    if (size > 0) out.add(static_cast<std::size_t>(size), from);
}

void QuicAdmission::sendVersions(const ngtcp2_version_cid& ids, const SocketAddress& from, PacketBatch& out,
                                 HostClock::time_point now) {
    if (now - versionsSince_ >= std::chrono::seconds(1)) {
        versionsSince_ = now;
        versionsSent_ = 0;
    }
    if (versionsSent_++ >= parameters_.versionNegotiationsPerSecond) return;
    constexpr std::array<std::uint32_t, 2> versions{NGTCP2_PROTO_VER_V1,
                                                    0x1a2a3a4a};  // the second: RFC 9000 6.3
    std::uint8_t unused = 0;
    gnutls_rnd(GNUTLS_RND_NONCE, &unused, 1);
    const auto room = out.room(minInitialBytes);
    const auto size =
        ngtcp2_pkt_write_version_negotiation(room.data(), room.size(), unused, ids.scid, ids.scidlen,
                                             ids.dcid, ids.dcidlen, versions.data(), versions.size());
    if (size > 0) out.add(static_cast<std::size_t>(size), from);
}

}  // namespace velmora
