#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Linux/Network/FlowChannel.h"
#include "Platform/Linux/Network/StreamChannel.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"

namespace velmora {

class QuicGroup;

/// What a group's owner and the network thread share of it, as StreamChannel does for a stream.
class GroupChannel : public std::enable_shared_from_this<GroupChannel> {
public:
    // The owner's half
    void start(Queue& queue, std::weak_ptr<QuicGroup> group);
    void abandon();
    TransportState state() const { return state_; }
    std::string remoteDescription() const;
    bool isEnded() const;
    std::shared_ptr<DatagramFlow> takeOfferedFlow();

    // The network thread's half
    void changed(TransportState state, const std::optional<TransportError>& error);
    void setRemote(const std::string& remote);
    void arrived(std::shared_ptr<QuicStream> stream);
    void arrived(std::shared_ptr<QuicDatagramFlow> flow);
    /// The flow for `takeOfferedFlow`, at the side that opens it.
    void offer(std::shared_ptr<QuicDatagramFlow> flow);

private:
    using Event = std::function<void(QuicGroup&)>;
    void tellLocked(Event event);
    void deliver();

    std::atomic<TransportState> state_{TransportState::setup};
    mutable std::mutex mutex_;  // guards everything below
    Queue* queue_ = nullptr;
    std::weak_ptr<QuicGroup> group_;
    std::deque<Event> events_;  // not yet told; they keep what arrived alive
    bool abandoned_ = false;
    bool ended_ = false;
    std::string remote_ = "?";
    std::shared_ptr<QuicDatagramFlow> offeredFlow_;
};

/// A connection group as its owner holds it.
class QuicGroup final : public ConnectionGroup, public std::enable_shared_from_this<QuicGroup> {
public:
    /// `begin` runs on the network thread at the first `start`; empty for a group that arrived.
    QuicGroup(std::shared_ptr<QuicSession> session, std::function<void()> begin);
    ~QuicGroup() override;

    void start(Queue& queue) override;
    void cancel() override;
    TransportState state() const override;
    std::shared_ptr<Stream> openStream() override;
    std::shared_ptr<DatagramFlow> openDatagramFlow() override;
    std::string remoteDescription() const override;

private:
    const std::shared_ptr<QuicSession> session_;
    std::function<void()> begin_;
};

}  // namespace velmora
