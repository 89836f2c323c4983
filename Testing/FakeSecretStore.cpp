#include "Testing/FakeSecretStore.h"

namespace velmora {

SecretStore::Reading FakeSecretStore::read(const SecretName& name) {
    std::lock_guard lock(mutex_);
    if (locked_) return Lack::unavailable;
    const auto found = items_.find(name);
    if (found == items_.end()) return Lack::absent;
    return found->second.value;
}

Status FakeSecretStore::save(const SecretName& name, ByteView value, std::string_view label) {
    std::lock_guard lock(mutex_);
    if (locked_) return Failure{"locked"};
    auto& item = items_.try_emplace(name, Item{{}, std::string(label)}).first->second;
    item.value.assign(value.begin(), value.end());
    return Done{};
}

Status FakeSecretStore::remove(const SecretName& name) {
    std::lock_guard lock(mutex_);
    if (locked_) return Failure{"locked"};
    items_.erase(name);
    return Done{};
}

void FakeSecretStore::setLocked(bool locked) {
    std::lock_guard lock(mutex_);
    locked_ = locked;
}

std::optional<std::string> FakeSecretStore::labelOf(const SecretName& name) {
    std::lock_guard lock(mutex_);
    const auto found = items_.find(name);
    if (found == items_.end()) return std::nullopt;
    return found->second.label;
}

}  // namespace velmora
