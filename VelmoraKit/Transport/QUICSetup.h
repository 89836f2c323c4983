#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// What a listener proves itself with: the self-signed certificate and its key.
struct TransportIdentity {
    Bytes certificate;  // DER
    Bytes privateKey;   // PKCS#8 PEM of the P-256 key
    bool operator==(const TransportIdentity&) const = default;
};

/// The QUIC parameters that both sides use, and how a viewer comes to trust a host.
struct QUICSetup {
    static constexpr std::string_view alpn = "velmora/1";
    /// Payload of a video packet when the connection does not tell its size.
    static constexpr std::size_t defaultDatagramPayload = 1150;
    static constexpr std::size_t maxDatagramFrameSize = 1400;
    static constexpr std::chrono::milliseconds idleTimeout{20'000};

    /// The certificate must have this fingerprint: 64 uppercase hexadecimal digits of SHA-256 over its DER.
    struct Pinned {
        std::string fingerprint;
    };
    /// Asked with the fingerprint presented; says whether to go on. Runs on a network thread: touches
    /// thread-safe state only.
    struct TrustOnFirstUse {
        std::function<bool(const std::string& fingerprint)> accept;
    };
    using Verification = std::variant<Pinned, TrustOnFirstUse>;

    struct Parameters {
        std::optional<TransportIdentity> identity;  // a listener's
        std::optional<Verification> verification;   // a viewer's; the chain is looked at in no other way
        std::optional<std::uint16_t> localPort;     // to share the port of probes already sent from it
    };

    /// Decides about a presented fingerprint and logs a refusal of a pinned one.
    static bool accepts(const Verification& verification, const std::string& fingerprint);
};

}  // namespace velmora
