#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "VelmoraKit/Transport/KeyStore.h"
#include "VelmoraKit/Transport/QUICSetup.h"

namespace velmora {

/// What a host's listener proves itself with, and how viewers recognise it.
struct HostIdentityCertificate {
    TransportIdentity identity;
    std::string fingerprint;
};

/// The host's self-signed certificate. It is made once and stays: viewers remember its fingerprint. It lives
/// with its key in the key store; here is no state. May block as long as the store does.
struct HostCertificate {
    static constexpr std::string_view certificateLabel = "Velmora Host";
    static constexpr std::string_view keyLabel = "Velmora Host QUIC";

    using WallClock = std::chrono::system_clock::time_point;

    /// The stored pair, or a new one made at `now`.
    /// `absent`: there is none and none could be made, or a certificate without its key was just deleted;
    /// the log tells. `unavailable`: the store does not answer now; nothing was changed and nothing logged,
    /// ask again later.
    static Result<HostIdentityCertificate, KeyStore::Lack> load(
        KeyStore& store, WallClock now = std::chrono::system_clock::now());

    /// SHA-256 of a certificate's DER as 64 uppercase hexadecimal digits.
    static std::string fingerprintOf(ByteView der, KeyStore& store);
};

}  // namespace velmora
