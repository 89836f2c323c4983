#include "Testing/FakePreferenceStore.h"

namespace velmora {

struct FakePreferenceStore::Observed final : Observation {
    explicit Observed(std::shared_ptr<Subscription> s) : subscription(std::move(s)) {}
    std::shared_ptr<Subscription> subscription;
};

std::optional<PreferenceValue> FakePreferenceStore::get(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

void FakePreferenceStore::set(std::string_view key, PreferenceValue value) {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found != values_.end() && found->second == value) return;
    values_.insert_or_assign(std::string(key), std::move(value));
    tellLocked(std::string(key));
}

void FakePreferenceStore::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return;
    values_.erase(found);
    tellLocked(std::string(key));
}

std::unique_ptr<PreferenceStore::Observation> FakePreferenceStore::observe(Queue& queue, Observer observer) {
    auto subscription = std::make_shared<Subscription>(Subscription{queue, std::move(observer)});
    std::lock_guard lock(mutex_);
    subscriptions_.push_back(subscription);
    return std::make_unique<Observed>(std::move(subscription));
}

void FakePreferenceStore::tellLocked(const std::string& key) {
    subscriptions_.remove_if([](const auto& subscription) { return subscription.expired(); });
    for (const auto& weak : subscriptions_) {
        const auto subscription = weak.lock();
        if (!subscription) continue;
        subscription->queue.post([weak, key] {
            if (const auto alive = weak.lock()) alive->observer(key);
        });
    }
}

}  // namespace velmora
