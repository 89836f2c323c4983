#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A serial queue on a thread of its own, named for debuggers and `top -H`.
/// Owned by whoever builds the object graph, and outlives what runs on it. Ending one from one of its own
/// blocks is an error.
class ThreadQueue final : public Queue {
public:
    explicit ThreadQueue(std::string name);
    ~ThreadQueue() override;  // ends it

    /// Lets the block that is running end, drops the rest, and joins the thread. Nothing runs afterwards, and
    /// what is posted is dropped: where queues post to each other, all end before the first is destroyed. May
    /// be repeated.
    void end();

    void post(Block block) override;
    TimerToken after(HostClock::duration delay, Block block) override;
    HostClock::time_point now() const override { return HostClock::now(); }
    bool isCurrent() const override { return std::this_thread::get_id() == thread_.get_id(); }
    std::string_view name() const override { return name_; }

private:
    struct Timer {
        std::shared_ptr<bool> alive;
        Block block;
    };
    void run();

    const std::string name_;
    std::mutex mutex_;  // guards the four fields below; never held while a block runs
    std::condition_variable wake_;
    std::deque<Block> blocks_;
    std::multimap<HostClock::time_point, Timer> timers_;
    bool ending_ = false;
    std::thread thread_;  // last: it starts with everything above in place
};

}  // namespace velmora
