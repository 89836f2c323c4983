#include "Platform/Linux/Secrets/LinuxSecretStore.h"

#include <utility>

#include "Platform/Linux/System/PrivateFile.h"

namespace velmora {

LinuxSecretStore::LinuxSecretStore(Keyring& keyring, std::filesystem::path file)
    : keyring_(keyring), file_(std::move(file)) {}

std::filesystem::path LinuxSecretStore::defaultFile() {
    return dataFolder() / "secrets.json";
}

SecretStore::Reading LinuxSecretStore::read(const SecretName& name) {
    std::lock_guard lock(mutex_);
    const auto entries = file_.read();
    if (!entries) return Lack::unavailable;
    const auto entry = entries->find(name);
    const bool isKnown = entry != entries->end();
    if (isKnown && !entry->second.isInKeyring()) return *entry->second.value;

    auto found = keyring_.read(name);
    if (found) {
        // Left from a time when the file was lost. Not noted, it only costs a look at the file next time.
        if (!isKnown) [[maybe_unused]]
            const auto noted = noteInKeyring(name);
        return *std::move(found);
    }
    switch (found.error().trouble) {
        case Keyring::Trouble::absent:
            return Lack::absent;
        case Keyring::Trouble::missing:
            return isKnown ? Lack::unavailable : Lack::absent;
        case Keyring::Trouble::unavailable:
            break;
    }
    return Lack::unavailable;
}

Status LinuxSecretStore::save(const SecretName& name, ByteView value, std::string_view label) {
    std::lock_guard lock(mutex_);
    const auto entries = file_.read();
    if (!entries) return entries.error();
    const auto entry = entries->find(name);
    const bool isKnown = entry != entries->end();
    if (isKnown && !entry->second.isInKeyring()) return saveInFile(name, value);

    const auto saved = keyring_.save(name, value, label);
    if (saved) return isKnown ? Status(Done{}) : noteInKeyring(name);
    if (saved.error().trouble == Keyring::Trouble::missing && !isKnown) return saveInFile(name, value);
    return Failure{saved.error().text};
}

Status LinuxSecretStore::remove(const SecretName& name) {
    std::lock_guard lock(mutex_);
    const auto entries = file_.read();
    if (!entries) return entries.error();
    const auto entry = entries->find(name);
    const bool isKnown = entry != entries->end();
    if (!isKnown || entry->second.isInKeyring()) {
        const auto removed = keyring_.remove(name);
        const bool isGone = removed || removed.error().trouble == Keyring::Trouble::absent ||
                            (removed.error().trouble == Keyring::Trouble::missing && !isKnown);
        if (!isGone) return Failure{removed.error().text};
    }
    return isKnown ? file_.change([&](auto& all) { all.erase(name); }) : Status(Done{});
}

Status LinuxSecretStore::saveInFile(const SecretName& name, ByteView value) {
    return file_.change([&](auto& all) {
        all.insert_or_assign(name, SecretsFile::Entry{Bytes(value.begin(), value.end())});
    });
}

Status LinuxSecretStore::noteInKeyring(const SecretName& name) {
    return file_.change([&](auto& all) { all.insert_or_assign(name, SecretsFile::Entry{}); });
}

}  // namespace velmora
