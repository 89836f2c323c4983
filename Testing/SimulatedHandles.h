#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Testing/SimulatedEnd.h"

namespace velmora {

// What the users of a simulated link hold. Each speaks for its end of the connection and has no state of its
// own; dropping one tells the end.

class SimulatedGroup final : public ConnectionGroup {
public:
    /// `begin` runs with `start`: a connector's handshake.
    static std::shared_ptr<SimulatedGroup> make(std::shared_ptr<SimulatedEnd> end,
                                                std::function<void()> begin);
    SimulatedGroup(std::shared_ptr<SimulatedEnd> end, std::function<void()> begin)
        : end_(std::move(end)), begin_(std::move(begin)) {}
    ~SimulatedGroup() override { end_->dropGroup(); }

    void start(Queue& queue) override;
    void cancel() override { end_->cancelGroup(); }
    TransportState state() const override { return end_->group.state; }
    std::shared_ptr<Stream> openStream() override;
    std::shared_ptr<DatagramFlow> openDatagramFlow() override;
    std::string remoteDescription() const override { return end_->remoteDescription; }

private:
    const std::shared_ptr<SimulatedEnd> end_;
    const std::function<void()> begin_;
};

class SimulatedStream final : public Stream {
public:
    SimulatedStream(std::shared_ptr<SimulatedEnd> end, SimulatedEnd::StreamPointer state)
        : end_(std::move(end)), state_(std::move(state)) {}
    ~SimulatedStream() override { end_->cancelStream(state_); }

    void start(Queue& queue) override { end_->startStream(state_, queue); }
    void receiveExactly(std::size_t count, ReceiveCompletion completion) override {
        end_->receiveOn(state_, count, std::move(completion));
    }
    void send(Bytes data, SendCompletion completion) override {
        end_->sendOn(state_, std::move(data), std::move(completion));
    }
    void cancel() override { end_->cancelStream(state_); }
    TransportState state() const override { return state_->state; }
    std::string remoteDescription() const override { return end_->remoteDescription; }
    std::string interfaceDescription() const override { return "simulated (wired)"; }

private:
    const std::shared_ptr<SimulatedEnd> end_;
    const SimulatedEnd::StreamPointer state_;
};

class SimulatedFlow final : public DatagramFlow {
public:
    explicit SimulatedFlow(std::shared_ptr<SimulatedEnd> end) : end_(std::move(end)) {}
    ~SimulatedFlow() override { end_->cancelFlow(); }

    void start(Queue& queue) override { end_->startFlow(queue); }
    void send(std::vector<SharedBytes> datagrams, std::uint64_t tag) override {
        end_->sendDatagrams(std::move(datagrams), tag);
    }
    std::size_t pendingBytes() const override { return end_->flow.queuedBytes; }
    std::chrono::microseconds oldestPendingAge() const override;
    std::optional<std::size_t> usableDatagramFrameSize() const override {
        return end_->link.usableDatagramFrameSize;
    }
    PathStatistics statistics() const override { return end_->flow.statistics; }
    TransportState state() const override { return end_->flow.state; }
    void cancel() override { end_->cancelFlow(); }

private:
    const std::shared_ptr<SimulatedEnd> end_;
};

class SimulatedListener final : public Listener {
public:
    SimulatedListener(SimulatedLink& link, std::uint16_t port, QUICSetup::Parameters parameters)
        : port(port), parameters(std::move(parameters)), link_(link) {}
    ~SimulatedListener() override { link_.unbind(*this); }

    void start(Queue& queue) override;
    void cancel() override;
    TransportState state() const override { return state_; }

    void hand(std::shared_ptr<ConnectionGroup> group);

    const std::uint16_t port;
    const QUICSetup::Parameters parameters;

private:
    void moveTo(TransportState state, std::optional<TransportError> error = std::nullopt);

    SimulatedLink& link_;
    Queue* queue_ = nullptr;
    TransportState state_ = TransportState::setup;
    Liveness alive_;
};

}  // namespace velmora
