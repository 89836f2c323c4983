#include "Shared/Keychain.h"

#include <fmt/format.h>
#include <unicode/utf8.h>

namespace velmora {
namespace {

bool isUtf8(ByteView bytes) {
    const auto length = static_cast<std::int32_t>(bytes.size());
    for (std::int32_t i = 0; i < length;) {
        UChar32 scalar = 0;
        U8_NEXT(bytes.data(), i, length, scalar);
        if (scalar < 0) return false;
    }
    return true;
}

}  // namespace

std::string Keychain::deviceLabel(std::string_view deviceName) {
    return fmt::format("Velmora password for {}", deviceName);
}

std::optional<std::string> Keychain::read(std::string_view service, std::string_view account) {
    auto found = lookUp(service, account);
    if (!found) return std::nullopt;
    return *std::move(found);
}

Result<std::string, SecretStore::Lack> Keychain::lookUp(std::string_view service, std::string_view account) {
    const auto stored = store_.read({std::string(service), std::string(account)});
    if (!stored) return stored.error();
    if (!isUtf8(*stored)) return SecretStore::Lack::absent;
    return textOf(*stored);
}

bool Keychain::save(std::string_view value, std::string_view service, std::string_view account,
                    std::string_view label) {
    return store_.save({std::string(service), std::string(account)}, viewOf(value), label).ok();
}

void Keychain::remove(std::string_view service, std::string_view account) {
    // What cannot be removed stays: there is nobody to tell, and nothing depends on it.
    [[maybe_unused]] const auto removed = store_.remove({std::string(service), std::string(account)});
}

}  // namespace velmora
