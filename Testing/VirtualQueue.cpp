#include "Testing/VirtualQueue.h"

#include <cstdio>
#include <cstdlib>

namespace velmora {

void VirtualTime::run(Entry entry) {
    if (entry.alive && !std::exchange(*entry.alive, false)) return;
    VirtualQueue* before = std::exchange(current_, entry.queue);
    entry.block();
    entry.block = nullptr;  // what it owned may post from its destructor: still on its queue
    current_ = before;
}

void VirtualTime::settle() {
    for (int runs = 0;; ++runs) {
        if (runs > 1'000'000) {
            std::fputs("VirtualTime::settle: blocks keep posting blocks\n", stderr);
            std::abort();
        }
        if (!posted_.empty()) {
            Entry entry = std::move(posted_.front());
            posted_.pop_front();
            run(std::move(entry));
            continue;
        }
        const auto due = timers_.begin();
        if (due == timers_.end() || due->first > now_) return;
        Entry entry = std::move(due->second);
        timers_.erase(due);
        run(std::move(entry));
    }
}

void VirtualTime::advanceBy(HostClock::duration span) {
    const auto end = now_ + span;
    settle();
    while (const auto next = nextTimer()) {
        if (*next > end) break;
        now_ = *next;
        settle();
    }
    now_ = end;
}

std::optional<HostClock::time_point> VirtualTime::nextTimer() {
    // Cancelled timers must not make advanceUntil stop early or, at the end of a test, look like work.
    while (!timers_.empty() && !*timers_.begin()->second.alive) timers_.erase(timers_.begin());
    if (timers_.empty()) return std::nullopt;
    return timers_.begin()->first;
}

VirtualQueue::~VirtualQueue() {
    // Move out before dropping: destroying a block may post or cancel.
    std::deque<VirtualTime::Entry> dropped;
    for (auto& entry : time_.posted_) {
        if (entry.queue == this) dropped.push_back(std::move(entry));
    }
    std::erase_if(time_.posted_, [](const auto& entry) { return !entry.block; });
    for (auto it = time_.timers_.begin(); it != time_.timers_.end();) {
        if (it->second.queue == this) {
            dropped.push_back(std::move(it->second));
            it = time_.timers_.erase(it);
        } else {
            ++it;
        }
    }
}

void VirtualQueue::post(Block block) {
    time_.posted_.push_back({this, nullptr, std::move(block)});
}

TimerToken VirtualQueue::after(HostClock::duration delay, Block block) {
    auto alive = std::make_shared<bool>(true);
    time_.timers_.emplace(time_.now_ + delay, VirtualTime::Entry{this, alive, std::move(block)});
    return TimerToken(std::move(alive));
}

void VirtualQueue::runSync(Block block) {
    time_.run({this, nullptr, std::move(block)});
}

}  // namespace velmora
