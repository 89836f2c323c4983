#pragma once

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/PreferenceStore.h"

namespace velmora {

/// Preferences in memory.
class FakePreferenceStore final : public PreferenceStore {
public:
    std::optional<PreferenceValue> get(std::string_view key) const override;
    void set(std::string_view key, PreferenceValue value) override;
    void remove(std::string_view key) override;
    std::unique_ptr<Observation> observe(Queue& queue, Observer observer) override;
    void flush() override {}

private:
    struct Subscription {
        Queue& queue;
        Observer observer;
    };
    struct Observed;
    void tellLocked(const std::string& key);

    mutable std::mutex mutex_;
    std::map<std::string, PreferenceValue, std::less<>> values_;
    std::list<std::weak_ptr<Subscription>> subscriptions_;
};

}  // namespace velmora
