#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Keeps certificates and P-256 keys by label, over restarts, and does the cryptography that goes with them.
/// Any thread; a call may block for seconds on a slow store, so it stays off the main queue.
class KeyStore {
public:
    /// Only `absent` says that there is no such item: after `unavailable` (locked, no answer) it may exist,
    /// and must not be replaced.
    enum class Lack { absent, unavailable };

    virtual ~KeyStore() = default;

    /// The DER bytes of a stored certificate.
    virtual Result<Bytes, Lack> findCertificate(std::string_view label) = 0;
    virtual Status storeCertificate(std::string_view label, ByteView der) = 0;
    /// Deleting what does not exist succeeds.
    virtual Status deleteCertificate(std::string_view label) = 0;

    /// Makes a P-256 key, replacing one of that label.
    virtual Status createKey(std::string_view label) = 0;
    /// Its public half in X9.63 form: 0x04, x, y; 65 bytes.
    virtual Result<Bytes, Lack> publicKey(std::string_view label) = 0;
    /// Its private half as PKCS#8 PEM, which the TLS library takes.
    virtual Result<Bytes, Lack> privateKey(std::string_view label) = 0;
    virtual Status deleteKey(std::string_view label) = 0;
    /// ECDSA with SHA-256 over `message`, as X9.62 DER.
    virtual Result<Bytes> sign(std::string_view label, ByteView message) = 0;

    /// The X9.63 public key that a certificate carries; a failure if the bytes are no P-256 certificate.
    virtual Result<Bytes> publicKeyOfCertificate(ByteView der) = 0;

    virtual std::array<std::uint8_t, 32> sha256(ByteView data) = 0;
    /// From the system's secure source.
    virtual Bytes randomBytes(std::size_t count) = 0;
};

}  // namespace velmora
