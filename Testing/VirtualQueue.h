#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

class VirtualQueue;

/// The time that all VirtualQueues of a test share. It stands still until the test moves it, and everything
/// runs on the test's own thread: posted blocks first, in the order of posting over all queues, then timers
/// in the order of their time.
class VirtualTime {
public:
    HostClock::time_point now() const { return now_; }

    /// Runs what is due at this moment, posted blocks and timers of no delay, until nothing is left.
    /// Blocks that post without end are a fault of the code under test; after a million it gives up loudly.
    void settle();
    /// Moves time to now + `span`, stopping at each timer on the way.
    void advanceBy(HostClock::duration span);
    /// Advances until `condition` holds; false if it does not within `limit`.
    template <class F>
    bool advanceUntil(F condition, HostClock::duration limit) {
        settle();
        const auto end = now_ + limit;
        while (!condition()) {
            const auto next = nextTimer();
            if (!next || *next > end) {
                now_ = end;
                return condition();
            }
            advanceBy(*next - now_);
        }
        return true;
    }

private:
    friend class VirtualQueue;
    struct Entry {
        VirtualQueue* queue;
        std::shared_ptr<bool> alive;  // none for a posted block
        Queue::Block block;
    };
    void run(Entry entry);
    std::optional<HostClock::time_point> nextTimer();

    // Not at zero: a clock that has been running shows what takes zero for "never".
    HostClock::time_point now_{std::chrono::seconds(1000)};
    std::deque<Entry> posted_;
    std::multimap<HostClock::time_point, Entry> timers_;
    VirtualQueue* current_ = nullptr;
};

/// A queue in virtual time. Several of them over one VirtualTime stand for several threads, which lets
/// `isCurrent` catch work done on the wrong one. Outside any block the test itself counts as being on every
/// queue, so that it can call whatever it tests.
class VirtualQueue final : public Queue {
public:
    explicit VirtualQueue(VirtualTime& time, std::string name = "virtual")
        : time_(time), name_(std::move(name)) {}
    ~VirtualQueue() override;

    void post(Block block) override;
    TimerToken after(HostClock::duration delay, Block block) override;
    /// Runs at once, before what was posted earlier: with one thread there is nothing else to wait for.
    void runSync(Block block) override;
    HostClock::time_point now() const override { return time_.now(); }
    bool isCurrent() const override { return time_.current_ == nullptr || time_.current_ == this; }
    std::string_view name() const override { return name_; }

private:
    VirtualTime& time_;
    const std::string name_;
};

}  // namespace velmora
