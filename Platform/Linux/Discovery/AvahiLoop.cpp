#include "Platform/Linux/Discovery/AvahiLoop.h"

#include <avahi-common/timeval.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace velmora {

AvahiLoop::AvahiLoop()
    : poll_(avahi_simple_poll_new()), wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] {
          Watch watch(*this, wakeUp_, [this] { runPosted(); });
          while (avahi_simple_poll_iterate(poll_, -1) == 0) continue;
      }) {
    pthread_setname_np(thread_.native_handle(), "discovery");
}

AvahiLoop::~AvahiLoop() {
    post([this] { avahi_simple_poll_quit(poll_); });
    thread_.join();
    avahi_simple_poll_free(poll_);
    ::close(wakeUp_);
}

void AvahiLoop::post(Block block) {
    {
        std::lock_guard lock(mutex_);
        posted_.push_back(std::move(block));
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeUp_, &one, sizeof one);
}

void AvahiLoop::runPosted() {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto drained = ::read(wakeUp_, &count, sizeof count);
    std::deque<Block> blocks;
    {
        std::lock_guard lock(mutex_);
        blocks.swap(posted_);
    }
    for (Block& block : blocks) block();
}

AvahiLoop::Timer::Timer(AvahiLoop& loop, std::chrono::milliseconds delay, Block block)
    : poll_(loop.poll()), block_(std::move(block)) {
    timeval due{};
    avahi_elapse_time(&due, static_cast<unsigned>(delay.count()), 0);
    timeout_ = poll_->timeout_new(
        poll_, &due,
        [](AvahiTimeout*, void* self) {
            // Moved out: the block may destroy the timer that holds it.
            auto block = std::move(static_cast<Timer*>(self)->block_);
            block();
        },
        this);
}

AvahiLoop::Timer::~Timer() {
    poll_->timeout_free(timeout_);
}

AvahiLoop::Watch::Watch(AvahiLoop& loop, int descriptor, Block block)
    : poll_(loop.poll()), block_(std::move(block)) {
    watch_ = poll_->watch_new(
        poll_, descriptor, AVAHI_WATCH_IN,
        [](AvahiWatch*, int, AvahiWatchEvent, void* self) { static_cast<Watch*>(self)->block_(); }, this);
}

AvahiLoop::Watch::~Watch() {
    poll_->watch_free(watch_);
}

}  // namespace velmora
