#include "Testing/FakeKeyStore.h"

#include <algorithm>

#include "VelmoraKit/Transport/DER.h"

namespace velmora {
namespace {

constexpr std::size_t publicKeySize = 65;

/// `count` bytes that follow from `data`.
Bytes digest(ByteView data, std::size_t count) {
    std::uint64_t state = 0xcbf29ce484222325;
    for (const std::uint8_t byte : data) state = (state ^ byte) * 0x100000001b3;
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i) {
        state = state * 6364136223846793005 + 1442695040888963407;
        bytes.push_back(static_cast<std::uint8_t>(state >> 56));
    }
    return bytes;
}

}  // namespace

Result<Bytes, KeyStore::Lack> FakeKeyStore::findCertificate(std::string_view label) {
    const auto found = certificates_.find(label);
    if (found == certificates_.end()) return Lack::absent;
    return found->second;
}

Status FakeKeyStore::storeCertificate(std::string_view label, ByteView der) {
    if (refuseStore) return Failure{"refused", 28};
    certificates_.insert_or_assign(std::string(label), Bytes(der.begin(), der.end()));
    return Done{};
}

Status FakeKeyStore::deleteCertificate(std::string_view label) {
    certificates_.erase(std::string(label));
    return Done{};
}

Status FakeKeyStore::createKey(std::string_view label) {
    if (refuseCreate || keysUnavailable) return Failure{"refused"};
    keys_.insert_or_assign(std::string(label), randomBytes(32));
    return Done{};
}

Result<Bytes, KeyStore::Lack> FakeKeyStore::publicKey(std::string_view label) {
    const auto key = privateKey(label);
    if (!key) return key.error();
    Bytes half = digest(*key, publicKeySize);
    half[0] = 4;
    return half;
}

Result<Bytes, KeyStore::Lack> FakeKeyStore::privateKey(std::string_view label) {
    if (keysUnavailable) return Lack::unavailable;
    const auto found = keys_.find(label);
    if (found == keys_.end()) return Lack::absent;
    return found->second;
}

Status FakeKeyStore::deleteKey(std::string_view label) {
    if (keysUnavailable) return Failure{"refused"};
    keys_.erase(std::string(label));
    return Done{};
}

Result<Bytes> FakeKeyStore::sign(std::string_view label, ByteView message) {
    const auto key = privateKey(label);
    if (!key || refuseSign) return Failure{"refused"};
    Bytes signedText = *key;
    signedText.insert(signedText.end(), message.begin(), message.end());
    const Bytes number = digest(signedText, 31);
    const Bytes integer = DER::tagged(DER::Tag::integer, ByteView(number));
    return DER::tagged(DER::Tag::sequence, {integer, integer});
}

/// Looks for a BIT STRING of the size of a public key.
Result<Bytes> FakeKeyStore::publicKeyOfCertificate(ByteView der) {
    const Bytes start{0x03, publicKeySize + 1, 0x00, 0x04};
    const auto at = std::search(der.begin(), der.end(), start.begin(), start.end());
    if (der.end() - at < static_cast<std::ptrdiff_t>(publicKeySize + 3)) return Failure{"no certificate"};
    return Bytes(at + 3, at + 3 + publicKeySize);
}

std::array<std::uint8_t, 32> FakeKeyStore::sha256(ByteView data) {
    std::array<std::uint8_t, 32> hash{};
    std::ranges::copy(digest(data, hash.size()), hash.begin());
    return hash;
}

Bytes FakeKeyStore::randomBytes(std::size_t count) {
    const Bytes seed{static_cast<std::uint8_t>(random_), static_cast<std::uint8_t>(random_ >> 8)};
    ++random_;
    return digest(seed, count);
}

}  // namespace velmora
