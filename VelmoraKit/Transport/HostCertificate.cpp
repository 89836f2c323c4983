#include "VelmoraKit/Transport/HostCertificate.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Transport/DER.h"

namespace velmora {
namespace {

using DER::Tag;
using namespace std::chrono_literals;

Bytes objectIdentifier(std::initializer_list<std::uint8_t> content) {
    return DER::tagged(Tag::objectIdentifier, ByteView(content.begin(), content.size()));
}

/// A valid positive INTEGER needs its top bit clear; a leading zero byte is kept as it is drawn.
Bytes serialNumber(KeyStore& store) {
    Bytes serial = store.randomBytes(8);
    serial.front() &= 0x7f;
    return DER::tagged(Tag::integer, ByteView(serial));
}

Bytes ecdsaWithSha256() {
    return DER::tagged(Tag::sequence, {objectIdentifier({0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x02})});
}

Bytes commonName(std::string_view name) {
    const Bytes attribute =
        DER::tagged(Tag::sequence, {objectIdentifier({0x55, 0x04, 0x03}), DER::utf8(name)});
    return DER::tagged(Tag::sequence, {DER::tagged(Tag::set, ByteView(attribute))});
}

Bytes subjectPublicKeyInfo(const Bytes& publicKey) {
    const Bytes algorithm =
        DER::tagged(Tag::sequence, {objectIdentifier({0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01}),
                                    objectIdentifier({0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07})});
    return DER::tagged(Tag::sequence, {algorithm, DER::bitString(publicKey)});
}

Bytes tbsCertificate(const Bytes& publicKey, HostCertificate::WallClock now, KeyStore& store) {
    const Bytes two{2};
    const Bytes version = DER::tagged(Tag::context0, {DER::tagged(Tag::integer, ByteView(two))});
    const Bytes name = commonName(HostCertificate::certificateLabel);
    // A day back, for viewers whose clock is behind, and ten years on.
    const Bytes validity =
        DER::tagged(Tag::sequence, {DER::utcTime(now - 24h), DER::utcTime(now + 3650 * 24h)});
    return DER::tagged(Tag::sequence, {version, serialNumber(store), ecdsaWithSha256(), name, validity, name,
                                       subjectPublicKeyInfo(publicKey)});
}

/// Makes key and certificate and stores them; the log tells how it went.
void createPair(KeyStore& store, HostCertificate::WallClock now) {
    const auto complainOfKey = [](const std::string& error) {
        debugLog(fmt::format("⚠︎ Could not create the QUIC key: {}", error.empty() ? "?" : error));
    };
    if (const auto created = store.createKey(HostCertificate::keyLabel); !created) {
        return complainOfKey(created.error().text);
    }
    const auto publicKey = store.publicKey(HostCertificate::keyLabel);
    if (!publicKey) return complainOfKey("");

    const Bytes tbs = tbsCertificate(*publicKey, now, store);
    const auto signature = store.sign(HostCertificate::keyLabel, tbs);
    if (!signature) return debugLog("⚠︎ Could not sign the QUIC certificate");

    const Bytes der = DER::tagged(Tag::sequence, {tbs, ecdsaWithSha256(), DER::bitString(*signature)});
    if (!store.publicKeyOfCertificate(der)) return debugLog("⚠︎ Could not build the QUIC certificate");

    if (const auto stored = store.storeCertificate(HostCertificate::certificateLabel, der); !stored) {
        return debugLog(fmt::format("⚠︎ Could not store the QUIC certificate ({})", stored.error().code));
    }
    debugLog("Created this Mac's QUIC certificate");
}

/// The private key that belongs to the certificate; absent if the key is missing or another one.
Result<Bytes, KeyStore::Lack> keyOf(const Bytes& certificate, KeyStore& store) {
    const auto publicKey = store.publicKey(HostCertificate::keyLabel);
    if (!publicKey) return publicKey.error();
    const auto certified = store.publicKeyOfCertificate(certificate);
    if (!certified || *certified != *publicKey) return KeyStore::Lack::absent;
    return store.privateKey(HostCertificate::keyLabel);
}

}  // namespace

Result<HostIdentityCertificate, KeyStore::Lack> HostCertificate::load(KeyStore& store, WallClock now) {
    auto certificate = store.findCertificate(certificateLabel);
    if (!certificate && certificate.error() == KeyStore::Lack::absent) {
        // A store that is locked could not keep a new key, and may hold the one to be found again later.
        const auto key = store.publicKey(keyLabel);
        if (!key && key.error() == KeyStore::Lack::unavailable) return KeyStore::Lack::unavailable;
        createPair(store, now);
        certificate = store.findCertificate(certificateLabel);
        if (!certificate && certificate.error() == KeyStore::Lack::absent) {
            debugLog("⚠︎ No QUIC certificate available; connections by ID use TCP");
        }
    }
    if (!certificate) return certificate.error();

    auto key = keyOf(*certificate, store);
    if (key) {
        auto fingerprint = fingerprintOf(*certificate, store);
        return HostIdentityCertificate{{*std::move(certificate), *std::move(key)}, std::move(fingerprint)};
    }
    if (key.error() == KeyStore::Lack::absent) {
        debugLog("⚠︎ QUIC certificate has no matching key; making a new one");
        // Whatever stays behind is found without its other half and deleted by the next load.
        [[maybe_unused]] const auto certificateDeleted = store.deleteCertificate(certificateLabel);
        [[maybe_unused]] const auto keyDeleted = store.deleteKey(keyLabel);
    }
    return key.error();
}

std::string HostCertificate::fingerprintOf(ByteView der, KeyStore& store) {
    std::string text;
    for (const std::uint8_t byte : store.sha256(der)) text += fmt::format("{:02X}", byte);
    return text;
}

}  // namespace velmora
