#pragma once

#include <cassert>
#include <memory>
#include <string_view>
#include <utility>

#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// Holds a pending timer: destroying or resetting the token cancels it. A token outlives its timer
/// harmlessly. Cancel on the queue that owns the timer: then the block is sure not to run any more.
class TimerToken {
public:
    TimerToken() = default;
    explicit TimerToken(std::shared_ptr<bool> alive) : alive_(std::move(alive)) {}
    ~TimerToken() { reset(); }
    TimerToken(TimerToken&& other) noexcept = default;
    TimerToken& operator=(TimerToken&& other) noexcept {
        reset();
        alive_ = std::move(other.alive_);
        return *this;
    }
    void reset() {
        if (alive_) *alive_ = false;
        alive_.reset();
    }
    /// True while the timer has been set and neither run nor been cancelled.
    explicit operator bool() const { return alive_ && *alive_; }

private:
    std::shared_ptr<bool> alive_;
};

/// Runs blocks one at a time, in order. Implementations: the main queue (the event loop), ThreadQueue (a
/// thread of its own), VirtualQueue (tests; time moves only when the test says so).
class Queue {
public:
    using Block = UniqueFunction<void()>;

    virtual ~Queue() = default;

    /// Runs `block` after everything posted before it. From any thread. A block posted to a queue that has
    /// ended is destroyed without running.
    virtual void post(Block block) = 0;

    /// Runs `block` once, no earlier than `delay` from now, unless the token is reset first. Called on the
    /// queue itself, where the token must also be reset: then a reset block never runs.
    [[nodiscard]] virtual TimerToken after(HostClock::duration delay, Block block) = 0;

    /// Runs `block` on the queue and returns when it is done; at once when already there. From any thread
    /// but the main one: nothing may hold up the main queue.
    virtual void runSync(Block block);

    virtual HostClock::time_point now() const = 0;
    virtual bool isCurrent() const = 0;
    virtual std::string_view name() const = 0;

    std::uint64_t nowMicros() const { return HostClock::micros(now()); }
};

/// Checked in debug builds at the top of what must run on `queue`.
inline void assertOn([[maybe_unused]] const Queue& queue) {
    assert(queue.isCurrent() && "called on the wrong queue");
}

/// A liveness token: blocks posted for an object hold `weak()` and do nothing once the object is gone.
/// Destroy it on the queue where the guarded blocks run.
class Liveness {
public:
    /// Wraps `f` so that it runs only while this token lives.
    template <class F>
    auto guard(F f) const {
        return [weak = std::weak_ptr<char>(token_), f = std::move(f)](auto&&... args) mutable {
            if (!weak.expired()) f(std::forward<decltype(args)>(args)...);
        };
    }
    std::weak_ptr<char> weak() const { return token_; }
    /// Forgets every block guarded so far.
    void renew() { token_ = std::make_shared<char>(); }

private:
    std::shared_ptr<char> token_ = std::make_shared<char>();
};

}  // namespace velmora
