#pragma once

#include <filesystem>
#include <mutex>

#include "Platform/Linux/Secrets/Keyring.h"
#include "Platform/Linux/Secrets/SecretsFile.h"
#include "Platform/SecretStore.h"

namespace velmora {

/// Secrets in the desktop's keyring, or in a private file where there is no keyring (a server, a plain
/// window manager). An item stays where it was first put, and the file remembers where that is: a keyring
/// that appears later hides no item, and one that is missing today (a login over the network) makes its
/// items unavailable, not absent.
class LinuxSecretStore final : public SecretStore {
public:
    /// `keyring` outlives us.
    LinuxSecretStore(Keyring& keyring, std::filesystem::path file);
    /// The user's own: velmora/secrets.json under the XDG data folder.
    static std::filesystem::path defaultFile();

    Reading read(const SecretName& name) override;
    Status save(const SecretName& name, ByteView value, std::string_view label) override;
    Status remove(const SecretName& name) override;

private:
    Status saveInFile(const SecretName& name, ByteView value);
    Status noteInKeyring(const SecretName& name);

    Keyring& keyring_;
    std::mutex mutex_;  // one operation at a time: between a look and a save nobody else comes
    SecretsFile file_;
};

}  // namespace velmora
