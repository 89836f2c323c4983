#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A queue in real time whose blocks run on the test's own thread, while the test waits for something. What
/// other threads post to it therefore needs no locks in the test, and nobody sleeps or polls.
class PumpedQueue final : public Queue {
public:
    void post(Block block) override {
        const std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
        wake_.notify_one();
    }
    TimerToken after(HostClock::duration delay, Block block) override {
        auto alive = std::make_shared<bool>(true);
        timers_.emplace(now() + delay, Timer{alive, std::move(block)});
        return TimerToken(std::move(alive));
    }
    void runSync(Block block) override { block(); }
    HostClock::time_point now() const override { return HostClock::now(); }
    bool isCurrent() const override { return std::this_thread::get_id() == thread_; }
    std::string_view name() const override { return "test"; }

    /// Runs blocks until `condition` holds, which is looked at after each; false if that takes past `limit`.
    template <class F>
    bool runUntil(F condition, HostClock::duration limit) {
        const auto end = now() + limit;
        while (!condition()) {
            if (Block block = nextBlock(end)) {
                block();
            } else if (now() >= end) {
                return condition();
            }
        }
        return true;
    }

private:
    struct Timer {
        std::shared_ptr<bool> alive;
        Block block;
    };

    /// The next block that is due, waiting for one until `end`; an empty one for a timer that was cancelled.
    Block nextBlock(HostClock::time_point end) {
        const auto timer = timers_.begin();
        const bool waitsForTimer = timer != timers_.end() && timer->first < end;
        const auto until = waitsForTimer ? timer->first : end;
        {
            std::unique_lock lock(mutex_);
            wake_.wait_for(lock, until - now(), [this] { return !blocks_.empty(); });
            if (!blocks_.empty()) {
                Block block = std::move(blocks_.front());
                blocks_.pop_front();
                return block;
            }
        }
        if (!waitsForTimer || timer->first > now()) return nullptr;
        Timer due = std::move(timer->second);
        timers_.erase(timer);
        return std::exchange(*due.alive, false) ? std::move(due.block) : nullptr;
    }

    const std::thread::id thread_ = std::this_thread::get_id();
    std::multimap<HostClock::time_point, Timer> timers_;
    std::mutex mutex_;  // guards blocks_
    std::condition_variable wake_;
    std::deque<Block> blocks_;
};

}  // namespace velmora
