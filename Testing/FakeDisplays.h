#pragma once

#include <algorithm>
#include <mutex>

#include "Platform/Displays.h"

namespace velmora {

/// Displays that a test arranges. Keeps the promises of the interface: main first and exactly one, observers
/// told on their queue.
class FakeDisplays final : public Displays {
public:
    /// What is connected now, in the system's order. The first is main if none says so.
    void set(std::vector<Display> displays) {
        if (!displays.empty()) {
            auto main = std::ranges::find_if(displays, &Display::isMain);
            if (main == displays.end()) main = displays.begin();
            main->isMain = true;
            std::rotate(displays.begin(), main, main + 1);
        }
        {
            std::lock_guard lock(mutex_);
            displays_ = std::move(displays);
            failure_.reset();
        }
        tell();
    }
    /// The window system went away.
    void fail(const Failure& failure) {
        {
            std::lock_guard lock(mutex_);
            failure_ = failure;
        }
        tell();
    }

    Result<std::vector<Display>> list() override {
        std::lock_guard lock(mutex_);
        if (failure_) return *failure_;
        return displays_;
    }
    void observe(Queue* queue, std::function<void()> onChange) override {
        std::lock_guard lock(mutex_);
        queue_ = onChange ? queue : nullptr;
        observer_ = queue_ ? std::make_shared<std::function<void()>>(std::move(onChange)) : nullptr;
    }

private:
    void tell() {
        std::lock_guard lock(mutex_);
        if (!observer_) return;
        queue_->post([weak = std::weak_ptr(observer_)] {
            if (const auto observer = weak.lock()) (*observer)();
        });
    }

    std::mutex mutex_;
    std::vector<Display> displays_;
    std::optional<Failure> failure_;
    Queue* queue_ = nullptr;
    std::shared_ptr<std::function<void()>> observer_;
};

}  // namespace velmora
