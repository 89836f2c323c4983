#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/SecretStore.h"

namespace velmora {

/// The program's passwords in the user's credential store, as text. Nothing is cached. Calls may block as
/// long as the store does, so they stay off the main queue. Any thread.
class Keychain {
public:
    static constexpr std::string_view hostService = "com.velmora.host";
    static constexpr std::string_view hostPasswordAccount = "password";
    static constexpr std::string_view hostPasswordLabel = "Velmora host password";
    /// Passwords of saved machines; the account is the device's UUID.
    static constexpr std::string_view devicesService = "com.velmora.devices";
    static std::string deviceLabel(std::string_view deviceName);

    explicit Keychain(SecretStore& store) : store_(store) {}

    /// None for whatever reason: for callers that go on without a password.
    std::optional<std::string> read(std::string_view service, std::string_view account);

    /// The same, telling an item that does not exist (or holds no text) from a store that does not answer.
    Result<std::string, SecretStore::Lack> lookUp(std::string_view service, std::string_view account);

    /// Makes or replaces the item; the label is used only for a new one. False: it was not stored.
    bool save(std::string_view value, std::string_view service, std::string_view account,
              std::string_view label);
    void remove(std::string_view service, std::string_view account);

private:
    SecretStore& store_;  // outlives us
};

}  // namespace velmora
