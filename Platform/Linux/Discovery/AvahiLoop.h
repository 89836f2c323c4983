#pragma once

#include <avahi-common/simple-watch.h>

#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// The thread on which Avahi's objects live: Avahi's own poll loop, which also runs posted blocks. Avahi's
/// client makes synchronous bus calls, which is one more reason to keep it off every other queue.
class AvahiLoop {
public:
    using Block = UniqueFunction<void()>;

    AvahiLoop();
    /// Runs what has been posted before, then ends the thread.
    ~AvahiLoop();

    /// Any thread.
    void post(Block block);

    // The rest on the loop's thread only.

    const AvahiPoll* poll() const { return avahi_simple_poll_get(poll_); }

    /// Runs its block once, later, unless destroyed first.
    class Timer {
    public:
        Timer(AvahiLoop& loop, std::chrono::milliseconds delay, Block block);
        ~Timer();
        Timer(const Timer&) = delete;
        Timer& operator=(const Timer&) = delete;

    private:
        const AvahiPoll* const poll_;
        Block block_;
        AvahiTimeout* timeout_;
    };

    /// Runs its block whenever the descriptor can be read.
    class Watch {
    public:
        Watch(AvahiLoop& loop, int descriptor, Block block);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

    private:
        const AvahiPoll* const poll_;
        Block block_;
        AvahiWatch* watch_;
    };

private:
    void runPosted();

    AvahiSimplePoll* const poll_;
    const int wakeUp_;
    std::mutex mutex_;  // guards the one below
    std::deque<Block> posted_;
    std::thread thread_;
};

}  // namespace velmora
