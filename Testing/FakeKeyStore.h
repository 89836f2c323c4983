#pragma once

#include <map>
#include <string>

#include "VelmoraKit/Transport/KeyStore.h"

namespace velmora {

/// Keys and certificates in memory. Its cryptography is a toy of the right shapes and sizes: the same input
/// gives the same output, another input another one, and nothing is secret.
class FakeKeyStore final : public KeyStore {
public:
    Result<Bytes, Lack> findCertificate(std::string_view label) override;
    Status storeCertificate(std::string_view label, ByteView der) override;
    Status deleteCertificate(std::string_view label) override;
    Status createKey(std::string_view label) override;
    Result<Bytes, Lack> publicKey(std::string_view label) override;
    Result<Bytes, Lack> privateKey(std::string_view label) override;
    Status deleteKey(std::string_view label) override;
    Result<Bytes> sign(std::string_view label, ByteView message) override;
    Result<Bytes> publicKeyOfCertificate(ByteView der) override;
    std::array<std::uint8_t, 32> sha256(ByteView data) override;
    Bytes randomBytes(std::size_t count) override;

    /// The keys do not answer; certificates do, as on a machine whose keyring is locked.
    bool keysUnavailable = false;
    /// Each makes its operation fail.
    bool refuseCreate = false, refuseSign = false, refuseStore = false;

private:
    std::map<std::string, Bytes, std::less<>> certificates_;
    std::map<std::string, Bytes, std::less<>> keys_;
    std::uint32_t random_ = 1;
};

}  // namespace velmora
