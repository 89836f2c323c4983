#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/SecretStore.h"

namespace velmora {

/// Secrets in memory. It can be locked, as a keyring is until its user unlocks it.
class FakeSecretStore final : public SecretStore {
public:
    Reading read(const SecretName& name) override;
    Status save(const SecretName& name, ByteView value, std::string_view label) override;
    Status remove(const SecretName& name) override;

    void setLocked(bool locked);
    /// None if there is no such item.
    std::optional<std::string> labelOf(const SecretName& name);

private:
    struct Item {
        Bytes value;
        std::string label;
    };
    std::mutex mutex_;
    std::map<SecretName, Item> items_;
    bool locked_ = false;
};

}  // namespace velmora
