#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "Platform/SecretStore.h"

namespace velmora {

/// A file of mode 0600 that remembers for each secret who keeps it: the keyring, or the file itself, with
/// its value. Locked against other processes while it changes.
class SecretsFile {
public:
    struct Entry {
        std::optional<Bytes> value;  // none: the keyring keeps it
        bool isInKeyring() const { return !value; }
        bool operator==(const Entry&) const = default;
    };
    using Entries = std::map<SecretName, Entry>;

    explicit SecretsFile(std::filesystem::path file);

    /// All entries. A file that cannot be parsed is set aside with one line and counts as empty; one that
    /// cannot be read is a failure.
    Result<Entries> read();
    /// Reads, lets `edit` change the entries, and writes them back if they differ.
    Status change(const std::function<void(Entries&)>& edit);

private:
    Result<Entries> readUnlocked();

    const std::filesystem::path file_;
};

}  // namespace velmora
