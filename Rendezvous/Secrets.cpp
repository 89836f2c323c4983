#include "Rendezvous/Secrets.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>

namespace velmora {

void fillRandomly(std::span<std::uint8_t> bytes) {
    // Without randomness every token could be guessed: better no service.
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) std::abort();
}

std::string randomHex(std::size_t count) {
    Bytes bytes(count);
    fillRandomly(bytes);
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

Digest sha256(ByteView bytes) {
    Digest digest{};
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1)
        std::abort();
    return digest;
}

bool equalInConstantTime(const Digest& a, const Digest& b) {
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace velmora
