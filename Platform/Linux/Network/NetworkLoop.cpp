#include "Platform/Linux/Network/NetworkLoop.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace velmora {

NetworkLoop::NetworkLoop(std::string threadName)
    : wakeDescriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] { run(); }) {
    pthread_setname_np(thread_.native_handle(), threadName.substr(0, 15).c_str());
}

NetworkLoop::~NetworkLoop() {
    if (thread_.joinable()) finish([] { return true; }, {}, [] {});
    ::close(wakeDescriptor_);
}

void NetworkLoop::post(Block block) {
    {
        std::lock_guard lock(mutex_);
        if (ended_) return;
        blocks_.push_back(std::move(block));
        if (blocks_.size() > 1) return;  // whoever posted the first has woken the thread
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeDescriptor_, &one, sizeof one);
}

void NetworkLoop::finish(std::function<bool()> isQuiet, HostClock::duration limit, Block last) {
    post([this, limit, isQuiet = std::move(isQuiet), last = &last]() mutable {
        isQuiet_ = std::move(isQuiet);
        finishBy_ = HostClock::now() + limit;
        last_ = std::move(*last);
    });
    thread_.join();
}

bool NetworkLoop::mayEnd() const {
    return isQuiet_ && (isQuiet_() || HostClock::now() >= finishBy_);
}

void NetworkLoop::add(Source& source) {
    sources_.push_back(&source);
}

void NetworkLoop::remove(Source& source) {
    std::replace(sources_.begin(), sources_.end(), &source, static_cast<Source*>(nullptr));
}

void NetworkLoop::runBlocks() {
    {
        std::lock_guard lock(mutex_);
        running_.swap(blocks_);
    }
    for (Block& block : running_) {
        block();
        block = nullptr;
    }
    running_.clear();
}

void NetworkLoop::waitForEvents() {
    auto deadline = finishBy_;
    polled_.assign(1, {wakeDescriptor_, POLLIN, 0});
    for (const Source* source : sources_) {
        deadline = std::min(deadline, source->deadline());
        const short events = source->wantsToSend() ? POLLIN | POLLOUT : POLLIN;
        polled_.push_back({source->descriptor(), events, 0});
    }
    timespec wait{};
    const timespec* limit = nullptr;
    if (deadline != TimePoint::max()) {
        const auto left =
            std::max(HostClock::duration::zero(), deadline == TimePoint::min() ? HostClock::duration::zero()
                                                                               : deadline - HostClock::now());
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
        wait = {static_cast<time_t>(micros / 1'000'000), static_cast<long>(micros % 1'000'000 * 1000)};
        limit = &wait;
    }
    if (ppoll(polled_.data(), polled_.size(), limit, nullptr) <= 0) return;
    if (polled_[0].revents) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(wakeDescriptor_, &count, sizeof count);
    }
    const auto now = HostClock::now();
    for (std::size_t i = 1; i < polled_.size(); ++i) {
        Source* source = sources_[i - 1];
        if (source && (polled_[i].revents & ~POLLOUT)) source->readable(now);
    }
}

void NetworkLoop::serviceAll() {
    const auto now = HostClock::now();
    for (std::size_t i = 0; i < sources_.size(); ++i) {  // by index: a source may add another
        if (sources_[i]) sources_[i]->service(now);
    }
    std::erase(sources_, nullptr);
}

void NetworkLoop::run() {
    while (!mayEnd()) {
        waitForEvents();
        runBlocks();
        serviceAll();
    }
    last_();
    serviceAll();
    last_ = nullptr;  // both may hold what holds us
    isQuiet_ = nullptr;
    // Blocks may own what posts here once more when it goes: dropped outside the lock, then refused.
    std::vector<Block> left;
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
        left.swap(blocks_);
    }
}

}  // namespace velmora
