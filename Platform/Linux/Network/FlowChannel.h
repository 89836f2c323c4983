#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/DatagramFlow.h"

namespace velmora {

class QuicSession;
class QuicDatagramFlow;

/// What a datagram flow's owner and the network thread share of it. Each side takes or gives whole batches,
/// one lock for each: nothing here is done per packet across threads. Wrapped for the owner by
/// QuicDatagramFlow.
class FlowChannel : public std::enable_shared_from_this<FlowChannel> {
public:
    struct HandOver {
        std::vector<SharedBytes> datagrams;
        std::uint64_t tag = 0;
        HostClock::time_point since;
    };
    struct Work {
        std::vector<HandOver> outgoing;
        bool cancel = false;
    };
    /// What the network thread knows after a round of writing.
    struct Progress {
        std::size_t pendingBytes = 0;
        std::optional<HostClock::time_point> oldestPending;
        std::optional<std::size_t> usableSize;
        PathStatistics statistics;
    };
    struct Parameters {
        std::size_t unclaimedBytes = 64 * 1024;   // kept before the owner starts the flow
        std::size_t receiveQueueBytes = 8 << 20;  // kept while the owner's queue is busy
    };

    FlowChannel(std::shared_ptr<QuicSession> session, Parameters parameters);

    // The owner's half
    void start(Queue& queue, std::weak_ptr<QuicDatagramFlow> flow);
    void send(std::vector<SharedBytes> datagrams, std::uint64_t tag);
    std::size_t pendingBytes() const;
    std::chrono::microseconds oldestPendingAge() const;
    std::optional<std::size_t> usableSize() const;
    PathStatistics statistics() const;
    TransportState state() const { return state_; }
    void cancel();
    void abandon();

    // The network thread's half
    Work takeWork();
    void becameReady();
    /// Takes the datagrams that arrived; the oldest go when the owner does not keep up.
    void received(std::vector<Bytes>& datagrams);
    void lost(std::vector<std::uint64_t>& tags);
    void progressed(const Progress& progress);
    void ended(TransportState final, const std::optional<TransportError>& error);

private:
    struct Report {
        TransportState state;
        std::optional<TransportError> error;
    };
    void askNetworkLocked();
    void tellOwnerLocked();
    void deliver();

    const std::shared_ptr<QuicSession> session_;
    const Parameters parameters_;
    std::atomic<TransportState> state_{TransportState::setup};

    mutable std::mutex mutex_;  // guards everything below
    Queue* queue_ = nullptr;
    std::weak_ptr<QuicDatagramFlow> flow_;
    bool deliveryPosted_ = false;
    bool networkAsked_ = false;
    bool ended_ = false;
    Work work_;
    std::size_t handedOverBytes_ = 0;  // in work_
    Progress progress_;
    bool drained_ = false;
    std::deque<Bytes> received_;
    std::size_t receivedCost_ = 0;  // of what received_ holds
    std::vector<std::uint64_t> lost_;
    std::deque<Report> reports_;
};

/// A datagram flow as its owner holds it.
class QuicDatagramFlow final : public DatagramFlow, public std::enable_shared_from_this<QuicDatagramFlow> {
public:
    explicit QuicDatagramFlow(std::shared_ptr<FlowChannel> channel) : channel_(std::move(channel)) {}
    ~QuicDatagramFlow() override { channel_->abandon(); }

    void start(Queue& queue) override { channel_->start(queue, weak_from_this()); }
    void send(std::vector<SharedBytes> datagrams, std::uint64_t tag) override {
        channel_->send(std::move(datagrams), tag);
    }
    std::size_t pendingBytes() const override { return channel_->pendingBytes(); }
    std::chrono::microseconds oldestPendingAge() const override { return channel_->oldestPendingAge(); }
    std::optional<std::size_t> usableDatagramFrameSize() const override { return channel_->usableSize(); }
    PathStatistics statistics() const override { return channel_->statistics(); }
    TransportState state() const override { return channel_->state(); }
    void cancel() override { channel_->cancel(); }

private:
    const std::shared_ptr<FlowChannel> channel_;
};

}  // namespace velmora
