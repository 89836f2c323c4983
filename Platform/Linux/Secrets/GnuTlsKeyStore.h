#pragma once

#include <filesystem>

#include "Platform/SecretStore.h"
#include "VelmoraKit/Transport/KeyStore.h"

namespace velmora {

/// Keys with GnuTLS. A private key is an item of the secret store (PKCS#8 PEM), a certificate a DER file in
/// `folder`: it is no secret, and is found while the secrets are locked.
class GnuTlsKeyStore final : public KeyStore {
public:
    /// `secrets` outlives us.
    GnuTlsKeyStore(SecretStore& secrets, std::filesystem::path folder);
    /// The user's own: velmora/ under the XDG data folder.
    static std::filesystem::path defaultFolder();

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

private:
    std::filesystem::path certificateFile(std::string_view label) const;

    SecretStore& secrets_;
    const std::filesystem::path folder_;
};

}  // namespace velmora
