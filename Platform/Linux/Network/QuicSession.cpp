#include "Platform/Linux/Network/QuicSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Platform/Linux/Network/LocalPort.h"

namespace velmora {

QuicSession::QuicSession(std::shared_ptr<NetworkLoop> loop, QuicConnection::Parameters parameters)
    : loop_(std::move(loop)), parameters_(parameters) {}

void QuicSession::attendLater(std::shared_ptr<StreamChannel> channel) {
    loop_->post([self = shared_from_this(), channel = std::move(channel)] { self->attend(*channel); });
}

void QuicSession::attendLater(std::shared_ptr<FlowChannel> channel) {
    loop_->post([self = shared_from_this(), channel = std::move(channel)] { self->attend(*channel); });
}

SocketAddress QuicSession::remote() const {
    std::lock_guard lock(remoteMutex_);
    return remoteNow_;
}

// ------------------------------------------------------------------------------------------ beginning

void QuicSession::connectTo(std::vector<SocketAddress> addresses, LocalPort& port,
                            std::shared_ptr<const QuicTls> tls, TimePoint now) {
    if (closing_) return;
    addresses_.assign(addresses.begin(), addresses.end());
    tls_ = std::move(tls);
    port_ = &port;
    port.adopt(shared_from_this());
    tryNextAddress(now);
}

void QuicSession::tryNextAddress(TimePoint now) {
    if (connection_) {
        for (const auto& id : ids_) port_->unroute(id);
        ids_.clear();
        connection_.reset();
    }
    while (!addresses_.empty()) {
        const SocketAddress address = addresses_.front();
        addresses_.pop_front();
        auto parameters = parameters_;
        if (!addresses_.empty()) parameters.handshakeTimeout = earlyAddressTimeout;
        auto made = QuicConnection::connectTo(address, port_->localAddress(), tls_, *this, parameters, now);
        if (!made) {
            finishAll(TransportState::failed, TransportError{0, made.error().text});
            return;
        }
        connection_ = std::move(made).value();
        dirty_ = true;
        std::lock_guard lock(remoteMutex_);
        remoteNow_ = address;
        return;
    }
}

bool QuicSession::accept(const QuicConnection::Initial& initial, const SocketAddress& from, LocalPort& port,
                         std::shared_ptr<const QuicTls> tls,
                         std::function<void(std::shared_ptr<QuicSession>)> onReady, TimePoint now) {
    port_ = &port;
    isHost_ = true;
    onReadyAtHost_ = std::move(onReady);
    auto made =
        QuicConnection::accept(initial, from, port.localAddress(), std::move(tls), *this, parameters_, now);
    if (!made) return false;
    connection_ = std::move(made).value();
    std::lock_guard lock(remoteMutex_);
    remoteNow_ = from;
    return true;
}

void QuicSession::failBeforeConnecting(const TransportError& error) {
    closing_ = true;
    finishAll(TransportState::failed, error);
}

void QuicSession::becomeReady() {
    isReady_ = true;
    addresses_.clear();
    {
        std::lock_guard lock(remoteMutex_);
        remoteNow_ = connection_->remote();
    }
    group_->setRemote(remote().text());
    if (!isHost_ && connection_->usableDatagramSize()) {
        makeFlow({});
        group_->offer(std::make_shared<QuicDatagramFlow>(flow_));
    }
    group_->changed(TransportState::ready, std::nullopt);
    for (StreamEntry& entry : streams_) open(entry);
    if (auto tell = std::exchange(onReadyAtHost_, nullptr)) tell(shared_from_this());
}

void QuicSession::makeFlow(FlowChannel::Parameters parameters) {
    flow_ = std::make_shared<FlowChannel>(shared_from_this(), parameters);
    flow_->progressed({.usableSize = connection_->usableDatagramSize()});
    flow_->becameReady();
}

// ------------------------------------------------------------------------------------------ owners' wishes

void QuicSession::addStream(std::shared_ptr<StreamChannel> channel) {
    if (closing_ || ended_) {
        channel->ended(TransportState::cancelled, TransportError{ECANCELED, "the connection has ended"});
        return;
    }
    hadUse_ = true;
    streams_.push_back({.channel = std::move(channel)});
    if (isReady_) open(streams_.back());
}

void QuicSession::open(StreamEntry& entry) {
    if (entry.id) return;
    entry.id = connection_->openStream();
    if (!entry.id) {
        entry.channel->receivingFailed({EMFILE, "the other side allows no further stream"});
        return;
    }
    for (Bytes& data : entry.early) connection_->sendOnStream(*entry.id, std::move(data));
    entry.early.clear();
    entry.channel->becameReady(remote().text());
    dirty_ = true;
}

void QuicSession::flowTaken() {
    if (ended_ || flowEnded_) return;
    hadUse_ = true;
    flowLive_ = true;
}

void QuicSession::attend(StreamChannel& channel) {
    StreamChannel::Work work = channel.takeWork();
    const auto entry = std::find_if(streams_.begin(), streams_.end(),
                                    [&](const auto& e) { return e.channel.get() == &channel; });
    if (entry == streams_.end() || !(connection_ || !isReady_)) return;
    for (auto& outgoing : work.outgoing) {
        entry->given += outgoing.data.size();
        entry->awaiting.push_back({entry->given, std::move(outgoing.completion)});
        if (entry->id) {
            connection_->sendOnStream(*entry->id, std::move(outgoing.data));
        } else {
            entry->early.push_back(std::move(outgoing.data));
        }
    }
    if (work.grant > 0 && entry->id) connection_->grantStream(*entry->id, work.grant);
    dirty_ = true;
    if (!work.cancel) return;
    if (entry->id) return beginFlush(*entry);
    endStream(entry, TransportState::cancelled, std::nullopt);
}

void QuicSession::beginFlush(StreamEntry& entry) {
    if (entry.flushBy) return;
    if (entry.id) connection_->finishStream(*entry.id);  // one without was refused: nothing of it can leave
    entry.flushBy = HostClock::now() + flushTime;
    dirty_ = true;
}

void QuicSession::attend(FlowChannel& channel) {
    FlowChannel::Work work = channel.takeWork();
    if (&channel != flow_.get() || !connection_ || flowEnded_) return;
    if (work.cancel) return endFlow();
    for (auto& handOver : work.outgoing)
        connection_->queueDatagrams(std::move(handOver.datagrams), handOver.tag, handOver.since);
    dirty_ = true;
}

void QuicSession::endFlow() {
    if (std::exchange(flowEnded_, true)) return;
    flowLive_ = false;
    connection_->discardQueuedDatagrams();
    flow_->ended(TransportState::cancelled, std::nullopt);
    closeIfUnused();
}

void QuicSession::cancel() {
    if (std::exchange(closing_, true)) return;
    addresses_.clear();
    if (!connection_ || !isReady_) return closeNow();
    if (flowLive_) endFlow();
    for (StreamEntry& entry : streams_) beginFlush(entry);
    closeIfUnused();
}

void QuicSession::closeNow() {
    closing_ = true;
    addresses_.clear();
    if (connection_) connection_->close(0);
    finishAll(TransportState::cancelled, std::nullopt);
    dirty_ = true;
}

void QuicSession::groupAbandoned() {
    groupGone_ = true;
    closeIfUnused();
}

/// Nobody can hear or say anything any more over this connection.
void QuicSession::closeIfUnused() {
    if (ended_ || !streams_.empty() || flowLive_) return;
    if (!groupGone_ && !hadUse_ && !closing_) return;
    closeNow();
}

void QuicSession::endStream(Entries::iterator entry, TransportState final,
                            const std::optional<TransportError>& error) {
    const auto channel = entry->channel;
    std::vector<Stream::SendCompletion> unsent;
    for (Awaiting& waiting : entry->awaiting) unsent.push_back(std::move(waiting.completion));
    streams_.erase(entry);
    channel->sent(std::move(unsent), error.value_or(TransportError{ECANCELED, "cancelled"}));
    channel->ended(final, error);
    closeIfUnused();
}

// ------------------------------------------------------------------------------------------ the connection's
// news

QuicSession::Entries::iterator QuicSession::find(std::int64_t id) {
    return std::find_if(streams_.begin(), streams_.end(), [id](const StreamEntry& e) { return e.id == id; });
}

void QuicSession::onStreamData(std::int64_t id, ByteView data, bool isLast) {
    auto entry = find(id);
    if (entry == streams_.end()) {
        // A stream arrives with its first byte. One whose entry is gone was cancelled here: its window is
        // handed back, so that it cannot hold up the others.
        const bool isNew = isHost_ && !data.empty() && !closing_ && arrivedStreams_.insert(id).second;
        if (!isNew) {
            if (!data.empty()) connection_->grantStream(id, data.size());
            return;
        }
        auto channel = std::make_shared<StreamChannel>(shared_from_this(), parameters_.streamWindow);
        hadUse_ = true;
        streams_.push_back({.channel = channel, .id = id});
        entry = std::prev(streams_.end());
        channel->becameReady(remote().text());
        group_->arrived(std::make_shared<QuicStream>(channel));
    }
    entry->channel->received(data, isLast);
}

void QuicSession::onStreamReset(std::int64_t id, std::uint64_t code) {
    const auto entry = find(id);
    if (entry == streams_.end()) return;
    if (code == 0) return entry->channel->received({}, true);
    entry->channel->receivingFailed(
        {ECONNRESET, fmt::format("stream reset by the other side with code {}", code)});
}

void QuicSession::onDatagramLost(std::uint64_t tag) {
    if (tag != 0) lostTags_.push_back(tag);
}

void QuicSession::onConnectionId(std::string_view id) {
    ids_.emplace_back(id);
    port_->route(id, *this);
}

void QuicSession::onConnectionIdRetired(std::string_view id) {
    port_->unroute(id);
    std::erase(ids_, id);
}

void QuicSession::deliverDatagrams() {
    if (!lostTags_.empty() && flow_ && !flowEnded_) flow_->lost(lostTags_);
    lostTags_.clear();
    if (arrivedDatagrams_.empty()) return;
    if (!flow_ && isHost_ && !closing_ && isReady_) {
        // A viewer has next to nothing to say in datagrams: a stranger's heap of them stays small.
        makeFlow({.receiveQueueBytes = FlowChannel::Parameters{}.unclaimedBytes});
        hadUse_ = true;
        flowLive_ = true;
        group_->arrived(std::make_shared<QuicDatagramFlow>(flow_));
    }
    if (flow_ && !flowEnded_) flow_->received(arrivedDatagrams_);
    arrivedDatagrams_.clear();
}

/// After every call into the connection: acts on what it told, outside its callbacks.
void QuicSession::settle(TimePoint now) {
    if (std::exchange(justReady_, false) && !ended_) becomeReady();
    deliverDatagrams();
    if (justEnded_) handleEnd(*std::exchange(justEnded_, std::nullopt), now);
}

void QuicSession::handleEnd(const QuicConnection::End& end, TimePoint now) {
    // Whoever answered and refused would do so under any address.
    const bool unreachable = end.error.code != 0 && end.error.code != EPROTO;
    if (!isReady_ && !closing_ && unreachable && !addresses_.empty()) return tryNextAddress(now);
    dirty_ = true;
    closing_ = true;
    finishAll(end.clean ? TransportState::cancelled : TransportState::failed,
              end.clean ? std::nullopt : std::optional(end.error));
}

void QuicSession::finishAll(TransportState final, const std::optional<TransportError>& error) {
    if (std::exchange(ended_, true)) return;
    closing_ = true;
    group_->changed(final, error);
    if (flow_ && !std::exchange(flowEnded_, true)) flow_->ended(final, error);
    flow_.reset();  // it holds us too: the owner's handle is what keeps it from here on
    flowLive_ = false;
    while (!streams_.empty()) endStream(streams_.begin(), final, error);
}

// ------------------------------------------------------------------------------------------ for the port

void QuicSession::receive(ByteView packet, const SocketAddress& from, const SocketAddress& to,
                          TimePoint now) {
    if (!connection_) return;
    if (isHost_) answerFrom_ = to;
    connection_->receive(packet, from, now);
    dirty_ = true;
    if (justReady_ || justEnded_) settle(now);
}

void QuicSession::sendFailed(const SocketAddress& to, int error) {
    if (!connection_ || isReady_ || connection_->isOver() || !(to == remote())) return;
    // Before there is a connection the system's word is the only news there will be.
    justEnded_ =
        QuicConnection::End{.error = {error, fmt::format("{}: {}", to.text(), std::strerror(error))}};
    dirty_ = true;
}

QuicSession::TimePoint QuicSession::deadline() const {
    if (!connection_ || dirty_) return TimePoint::min();
    auto deadline = connection_->deadline();
    for (const StreamEntry& entry : streams_) deadline = std::min(deadline, entry.flushBy.value_or(deadline));
    return deadline;
}

void QuicSession::service(PacketBatch& out, bool mayWrite, TimePoint now) {
    settle(now);
    if (!connection_) return;
    out.leaveFrom(answerFrom_);
    if (connection_->deadline() <= now) {
        connection_->handleDeadline(now);
        dirty_ = true;
    }
    if (dirty_ && mayWrite) {
        dirty_ = false;
        connection_->write(out, now);
        reportProgress();
    }
    settle(now);
    if (!connection_) return;
    for (auto entry = streams_.begin(); entry != streams_.end();) {
        const auto next = std::next(entry);
        const bool flushed = entry->flushBy && (*entry->flushBy <= now || !entry->id ||
                                                connection_->isStreamDelivered(*entry->id) ||
                                                connection_->isStreamRefused(*entry->id));
        if (flushed) {
            const bool wasLast = streams_.size() == 1;
            endStream(entry, TransportState::cancelled, std::nullopt);
            if (wasLast) break;
        }
        entry = next;
    }
    if (dirty_ && mayWrite && connection_->isOver()) {
        dirty_ = false;
        connection_->write(out, now);
    }
    settle(now);
    if (!connection_ || !connection_->isGone()) return;
    for (const auto& id : ids_) port_->unroute(id);
    ids_.clear();
    connection_.reset();
    port_ = nullptr;
}

void QuicSession::reportProgress() {
    for (StreamEntry& entry : streams_) {
        if (!entry.id || entry.awaiting.empty()) continue;
        const bool refused = connection_->isStreamRefused(*entry.id);
        const std::uint64_t accepted = connection_->acceptedOnStream(*entry.id);
        std::vector<Stream::SendCompletion> taken;
        while (!entry.awaiting.empty() && (refused || entry.awaiting.front().end <= accepted)) {
            taken.push_back(std::move(entry.awaiting.front().completion));
            entry.awaiting.pop_front();
        }
        if (taken.empty()) continue;
        entry.channel->sent(
            std::move(taken),
            refused ? std::optional(TransportError{EPIPE, "the other side reads no more"}) : std::nullopt);
    }
    if (!flow_ || flowEnded_ || !connection_) return;
    flow_->progressed({.pendingBytes = connection_->pendingDatagramBytes(),
                       .oldestPending = connection_->oldestPendingDatagram(),
                       .usableSize = connection_->usableDatagramSize(),
                       .statistics = connection_->statistics()});
}

}  // namespace velmora
