#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

/// Where the callbacks of a service under contract arrive, and how a test waits for them: in virtual time for
/// a fake, on a real thread for what works with the machine. A test touches what its callbacks touch only
/// within `waitUntil` and `run`, both of which are on the queue.
class ContractQueue {
public:
    virtual ~ContractQueue() = default;
    virtual Queue& queue() = 0;
    /// A callback came: waiters look again.
    virtual void signal() {}
    /// False if it did not come true although everything had time to happen.
    virtual bool waitUntil(std::function<bool()> condition) = 0;
    void run(Queue::Block block) { queue().runSync(std::move(block)); }
};

class VirtualContractQueue final : public ContractQueue {
public:
    Queue& queue() override { return queue_; }
    bool waitUntil(std::function<bool()> condition) override {
        return time.advanceUntil(std::move(condition), std::chrono::seconds(10));
    }
    VirtualTime time;

private:
    VirtualQueue queue_{time};
};

class ThreadContractQueue final : public ContractQueue {
public:
    Queue& queue() override { return queue_; }
    void signal() override {
        {
            std::lock_guard lock(mutex_);
            ++signals_;
        }
        changed_.notify_all();
    }
    bool waitUntil(std::function<bool()> condition) override {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (true) {
            std::unique_lock lock(mutex_);
            const int seen = signals_;
            lock.unlock();
            bool met = false;
            queue_.runSync([&] { met = condition(); });
            if (met) return true;
            lock.lock();
            if (!changed_.wait_until(lock, deadline, [&] { return signals_ != seen; })) return false;
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int signals_ = 0;
    ThreadQueue queue_{"velmora.contract"};
};

}  // namespace velmora
