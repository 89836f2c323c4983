#include "VelmoraKit/Core/ThreadQueue.h"

#include <pthread.h>

#include <utility>

namespace velmora {

ThreadQueue::ThreadQueue(std::string name) : name_(std::move(name)), thread_([this] { run(); }) {
    // The kernel keeps 15 characters; the end of our names tells more than the common "velmora.".
    const std::string shown = name_.starts_with("velmora.") ? name_.substr(8) : name_;
    pthread_setname_np(thread_.native_handle(), shown.substr(0, 15).c_str());
}

ThreadQueue::~ThreadQueue() {
    end();
}

void ThreadQueue::end() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void ThreadQueue::post(Block block) {
    {
        std::lock_guard lock(mutex_);
        if (ending_) return;
        blocks_.push_back(std::move(block));
    }
    wake_.notify_one();
}

TimerToken ThreadQueue::after(HostClock::duration delay, Block block) {
    auto alive = std::make_shared<bool>(true);
    {
        std::lock_guard lock(mutex_);
        if (!ending_) timers_.emplace(now() + delay, Timer{alive, std::move(block)});
    }
    wake_.notify_one();
    return TimerToken(std::move(alive));
}

void ThreadQueue::run() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        const auto due = timers_.begin();
        if (due != timers_.end() && due->first <= now()) {
            Timer timer = std::move(due->second);
            timers_.erase(due);
            lock.unlock();
            if (std::exchange(*timer.alive, false)) timer.block();
            timer = {};
            lock.lock();
            continue;
        }
        if (!blocks_.empty()) {
            Block block = std::move(blocks_.front());
            blocks_.pop_front();
            lock.unlock();
            block();
            block = nullptr;
            lock.lock();
            continue;
        }
        if (due == timers_.end()) {
            wake_.wait(lock);
        } else {
            wake_.wait_for(lock, due->first - now());
        }
    }
    // Blocks may own objects whose destructors post here: drop them outside the lock, on this thread.
    auto blocks = std::move(blocks_);
    auto timers = std::move(timers_);
    lock.unlock();
}

}  // namespace velmora
