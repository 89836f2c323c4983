#pragma once

#include <functional>
#include <list>
#include <memory>
#include <utility>

namespace velmora {

/// Those who want to hear that an object has changed. Lives on one queue. Observers may come and go while
/// they are being told, and may destroy the list itself.
class ObserverList {
public:
    using Observer = std::function<void()>;
    /// Ends the observation when destroyed.
    using Token = std::shared_ptr<void>;

    [[nodiscard]] Token add(Observer observer) {
        auto held = std::make_shared<Observer>(std::move(observer));
        observers_.push_back(held);
        return held;
    }

    void notify() {
        observers_.remove_if([](const auto& observer) { return observer.expired(); });
        const auto told = observers_;
        for (const auto& observer : told) {
            if (const auto held = observer.lock()) (*held)();
        }
    }

private:
    std::list<std::weak_ptr<Observer>> observers_;
};

}  // namespace velmora
