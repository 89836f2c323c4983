#pragma once

#include <poll.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// The network thread: waits for sockets, deadlines and posted blocks, and lets the sources work. It runs
/// packets and cryptography, never logic. Blocks may be posted from any thread, also after the end (they
/// are dropped); what they reach lives on this thread only.
class NetworkLoop {
public:
    using Block = UniqueFunction<void()>;
    using TimePoint = HostClock::time_point;

    /// Something with a socket. All calls come on the network thread, `service` after every wake-up in
    /// which anything happened to anyone.
    class Source {
    public:
        virtual ~Source() = default;
        virtual int descriptor() const = 0;
        virtual bool wantsToSend() const = 0;  // wake when the socket is writable
        virtual TimePoint deadline() const = 0;
        virtual void readable(TimePoint now) = 0;
        virtual void service(TimePoint now) = 0;
    };

    explicit NetworkLoop(std::string threadName);
    ~NetworkLoop();
    NetworkLoop(const NetworkLoop&) = delete;
    NetworkLoop& operator=(const NetworkLoop&) = delete;

    /// Wakes the thread once for any number of blocks posted while it sleeps or works.
    void post(Block block);
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }
    /// Must be called before the last reference can be dropped on the network thread, which cannot join
    /// itself. Goes on until `isQuiet` holds or `limit` has passed, runs `last`, lets every source work once
    /// more, and joins; later posts are dropped. From any other thread, once.
    void finish(std::function<bool()> isQuiet, HostClock::duration limit, Block last);

    // On the network thread:
    void add(Source& source);
    void remove(Source& source);  // also from within its own calls

private:
    void run();
    void runBlocks();
    void waitForEvents();
    void serviceAll();
    bool mayEnd() const;

    std::mutex mutex_;  // guards blocks_ and ended_; never held while a block runs
    std::vector<Block> blocks_;
    bool ended_ = false;
    const int wakeDescriptor_;
    std::vector<Source*> sources_;  // network thread; removed ones are null until the round is over
    std::vector<pollfd> polled_;    // of the present round
    std::vector<Block> running_;
    std::function<bool()> isQuiet_;  // set once the end has been asked for
    TimePoint finishBy_ = TimePoint::max();
    Block last_;
    std::thread thread_;  // last: it starts with everything above in place
};

}  // namespace velmora
