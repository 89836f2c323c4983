// velmora-identity: prints this machine's Host ID and password, one a line, as scripts want them: digits
// only. Reads them where the host keeps them (the XDG folders of the environment) and makes nothing.

#include <fmt/format.h>

#include "Platform/Linux/Secrets/LinuxSecretStore.h"
#include "Platform/Linux/Secrets/SecretServiceKeyring.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Shared/Keychain.h"
#include "Shared/Preferences.h"

int main() {
    using namespace velmora;
    const JsonPreferenceStore preferences{JsonPreferenceStore::defaultFile()};
    const auto id = preferences.string(PreferenceKeys::hostId);
    if (!id) {
        fmt::print(stderr, "velmora-identity: no host has run here yet\n");
        return 1;
    }
    SecretServiceKeyring keyring;
    LinuxSecretStore secrets{keyring, LinuxSecretStore::defaultFile()};
    const auto password = Keychain(secrets).lookUp(Keychain::hostService, Keychain::hostPasswordAccount);
    if (!password) {
        fmt::print(stderr, "velmora-identity: {}\n",
                   password.error() == SecretStore::Lack::absent ? "there is no password yet"
                                                                 : "the password store does not answer");
        return 1;
    }
    fmt::print("{}\n{}\n", *id, *password);
    return 0;
}
