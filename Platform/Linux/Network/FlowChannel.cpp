#include "Platform/Linux/Network/FlowChannel.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Network/QuicSession.h"

namespace velmora {

namespace {

/// What a waiting datagram takes beside its bytes. A peer may fill packets with empty ones.
constexpr std::size_t bookkeepingPerDatagram = 64;

std::size_t costOf(const Bytes& datagram) {
    return datagram.size() + bookkeepingPerDatagram;
}

}  // namespace

FlowChannel::FlowChannel(std::shared_ptr<QuicSession> session, Parameters parameters)
    : session_(std::move(session)), parameters_(parameters) {}

void FlowChannel::start(Queue& queue, std::weak_ptr<QuicDatagramFlow> flow) {
    std::lock_guard lock(mutex_);
    if (queue_) return;
    queue_ = &queue;
    flow_ = std::move(flow);
    tellOwnerLocked();
}

void FlowChannel::send(std::vector<SharedBytes> datagrams, std::uint64_t tag) {
    std::erase_if(datagrams, [](const SharedBytes& datagram) { return !datagram || datagram->empty(); });
    if (datagrams.empty()) return;
    std::size_t bytes = 0;
    for (const SharedBytes& datagram : datagrams) bytes += datagram->size();
    std::lock_guard lock(mutex_);
    if (ended_ || work_.cancel) return;
    handedOverBytes_ += bytes;
    work_.outgoing.push_back({std::move(datagrams), tag, HostClock::now()});
    askNetworkLocked();
}

std::size_t FlowChannel::pendingBytes() const {
    std::lock_guard lock(mutex_);
    return progress_.pendingBytes + handedOverBytes_;
}

std::chrono::microseconds FlowChannel::oldestPendingAge() const {
    std::lock_guard lock(mutex_);
    auto oldest = progress_.oldestPending;
    if (!oldest && !work_.outgoing.empty()) oldest = work_.outgoing.front().since;
    if (!oldest) return std::chrono::microseconds(0);
    return std::max(std::chrono::microseconds(0), HostClock::now() - *oldest);
}

std::optional<std::size_t> FlowChannel::usableSize() const {
    std::lock_guard lock(mutex_);
    return progress_.usableSize;
}

PathStatistics FlowChannel::statistics() const {
    std::lock_guard lock(mutex_);
    return progress_.statistics;
}

void FlowChannel::cancel() {
    std::lock_guard lock(mutex_);
    if (ended_ || work_.cancel) return;
    work_.outgoing.clear();
    handedOverBytes_ = 0;
    work_.cancel = true;
    askNetworkLocked();
}

void FlowChannel::abandon() {
    cancel();
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
    received_.clear();
    receivedCost_ = 0;
}

FlowChannel::Work FlowChannel::takeWork() {
    std::lock_guard lock(mutex_);
    networkAsked_ = false;
    // Still pending: the round of writing that follows says how much of it has left.
    progress_.pendingBytes += std::exchange(handedOverBytes_, 0);
    if (!progress_.oldestPending && !work_.outgoing.empty())
        progress_.oldestPending = work_.outgoing.front().since;
    Work work = std::move(work_);
    work_ = {};
    work_.cancel = work.cancel;  // stays: nothing is taken any more
    return work;
}

void FlowChannel::becameReady() {
    std::lock_guard lock(mutex_);
    if (ended_) return;
    reports_.push_back({TransportState::ready, std::nullopt});
    tellOwnerLocked();
}

void FlowChannel::received(std::vector<Bytes>& datagrams) {
    std::lock_guard lock(mutex_);
    const std::size_t limit = queue_ ? parameters_.receiveQueueBytes : parameters_.unclaimedBytes;
    for (Bytes& datagram : datagrams) {
        receivedCost_ += costOf(datagram);
        received_.push_back(std::move(datagram));
    }
    datagrams.clear();
    while (receivedCost_ > limit) {
        receivedCost_ -= costOf(received_.front());
        received_.pop_front();
    }
    tellOwnerLocked();
}

void FlowChannel::lost(std::vector<std::uint64_t>& tags) {
    std::lock_guard lock(mutex_);
    lost_.insert(lost_.end(), tags.begin(), tags.end());
    tags.clear();
    tellOwnerLocked();
}

void FlowChannel::progressed(const Progress& progress) {
    std::lock_guard lock(mutex_);
    const bool had = progress_.pendingBytes + handedOverBytes_ > 0;
    progress_ = progress;
    if (!had || progress_.pendingBytes + handedOverBytes_ > 0) return;
    drained_ = true;
    tellOwnerLocked();
}

void FlowChannel::ended(TransportState final, const std::optional<TransportError>& error) {
    std::lock_guard lock(mutex_);
    if (std::exchange(ended_, true)) return;
    work_.outgoing.clear();
    handedOverBytes_ = 0;
    progress_.pendingBytes = 0;
    progress_.oldestPending.reset();
    progress_.usableSize.reset();
    reports_.push_back({final, error});
    tellOwnerLocked();
}

void FlowChannel::askNetworkLocked() {
    if (std::exchange(networkAsked_, true)) return;
    session_->attendLater(shared_from_this());
}

void FlowChannel::tellOwnerLocked() {
    if (!queue_ || deliveryPosted_) return;
    if (received_.empty() && lost_.empty() && reports_.empty() && !drained_) return;
    deliveryPosted_ = true;
    queue_->post([self = shared_from_this()] { self->deliver(); });
}

/// On the owner's queue: takes the whole batch, then tells it. The flow is looked up for every single call,
/// since each may be the one that drops it.
void FlowChannel::deliver() {
    std::unique_lock lock(mutex_);
    deliveryPosted_ = false;
    if (!queue_) return;
    auto received = std::exchange(received_, {});
    receivedCost_ = 0;
    const auto lost = std::exchange(lost_, {});
    const auto reports = std::exchange(reports_, {});
    const bool drained = std::exchange(drained_, false);
    lock.unlock();

    const auto tell = [this](auto&& call) {
        if (const auto flow = flow_.lock()) call(*flow);
    };
    const auto report = [&](const Report& r) {
        state_ = r.state;
        tell([&](QuicDatagramFlow& flow) {
            if (const auto notify = flow.onState) notify(r.state, r.error);
        });
    };
    for (const Report& r : reports) {
        if (r.state == TransportState::ready) report(r);
    }
    for (Bytes& datagram : received) {
        tell([&](QuicDatagramFlow& flow) {
            if (const auto notify = flow.onDatagram) notify(std::move(datagram));
        });
    }
    for (const std::uint64_t tag : lost) {
        tell([&](QuicDatagramFlow& flow) {
            if (const auto notify = flow.onLost) notify(tag);
        });
    }
    if (drained) {
        tell([](QuicDatagramFlow& flow) {
            if (const auto notify = flow.onDrained) notify();
        });
    }
    for (const Report& r : reports) {
        if (r.state != TransportState::ready) report(r);
    }
}

}  // namespace velmora
