#include "Testing/SimulatedEnd.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

#include "Testing/SimulatedHandles.h"

namespace velmora {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t segmentSize = 1200;
constexpr HostClock::duration flushTime = 500ms;
constexpr std::size_t maxUnheardDatagrams = 256;
const TransportError wasCancelled{ECANCELED, "Operation canceled"};
const TransportError timedOut{ETIMEDOUT, "Connection timed out"};

}  // namespace

// The group.

void SimulatedEnd::connectTo(const std::shared_ptr<SimulatedEnd>& peer) {
    peer_ = peer;
    idleSince_ = link.now();
    moveGroupTo(TransportState::ready);
    for (const auto& [id, stream] : std::map(streams_)) moveStreamTo(stream, TransportState::ready);
    watchForSilence();
    pumpSoon();
}

void SimulatedEnd::startGroup(Queue& queue) {
    assert(!group.queue && "started twice");
    group.queue = &queue;
    if (group.state == TransportState::setup) group.state = TransportState::preparing;
    moveGroupTo(group.state);
    for (const auto& [id, stream] : std::map(streams_)) announceStream(stream);
    announceFlow();
}

void SimulatedEnd::moveGroupTo(TransportState state, std::optional<TransportError> error) {
    group.state = state;
    if (!group.queue) return;
    group.queue->post([weak = groupHandle, state, error] {
        const auto handle = weak.lock();
        if (!handle) return;
        if (const auto notify = handle->onState) notify(state, error);
    });
}

void SimulatedEnd::cancelGroup() {
    if (hasEnded()) return;
    if (group.state != TransportState::ready) return end(std::nullopt);
    for (const auto& [id, stream] : std::map(streams_)) cancelStream(stream);
    if (!hasEnded()) cancelFlow();
    groupIsDropped_ = true;
    closeIfLastIsGone();
}

void SimulatedEnd::dropGroup() {
    groupIsDropped_ = true;
    if (!hasEnded()) closeIfLastIsGone();
}

bool SimulatedEnd::hasEnded() const {
    return isFinal(group.state);
}

// Streams.

SimulatedEnd::StreamPointer SimulatedEnd::streamOf(std::uint64_t id) {
    auto& stream = streams_[id];
    if (!stream) {
        stream = std::make_shared<StreamState>();
        stream->id = id;
        stream->state =
            group.state == TransportState::ready ? TransportState::ready : TransportState::preparing;
    }
    return stream;
}

std::shared_ptr<SimulatedStream> SimulatedEnd::openStream() {
    if (hasEnded()) return nullptr;
    // As in QUIC: the two sides number their bidirectional streams apart.
    const std::uint64_t id = 4 * nextStreamId_++ + (side == Side::connector ? 0 : 1);
    const StreamPointer stream = streamOf(id);
    stream->hasArrived = true;
    auto handle = std::make_shared<SimulatedStream>(shared_from_this(), stream);
    stream->handle = handle;
    return handle;
}

void SimulatedEnd::announceStream(const StreamPointer& stream) {
    const auto handle = groupHandle.lock();
    if (stream->hasArrived || stream->isFinal() || (handle && !group.queue)) return;
    stream->hasArrived = true;
    if (!handle) return cancelStream(stream);
    auto arrived = std::make_shared<SimulatedStream>(shared_from_this(), stream);
    stream->handle = arrived;
    group.queue->post([weak = groupHandle, arrived = std::move(arrived)]() mutable {
        const auto group = weak.lock();
        if (!group) return;
        if (const auto notify = group->onStream) notify(std::move(arrived));
    });
}

void SimulatedEnd::startStream(const StreamPointer& stream, Queue& queue) {
    assert(!stream->queue && "started twice");
    stream->queue = &queue;
    if (stream->state == TransportState::ready) moveStreamTo(stream, TransportState::ready);
    for (auto& block : std::exchange(stream->heldCompletions, {})) queue.post(std::move(block));
}

void SimulatedEnd::moveStreamTo(const StreamPointer& stream, TransportState state,
                                std::optional<TransportError> error) {
    if (stream->isFinal()) return;
    stream->state = state;
    if (!stream->queue) return;
    stream->queue->post([weak = stream->handle, state, error] {
        const auto handle = weak.lock();
        if (!handle) return;
        if (const auto notify = handle->onState) notify(state, error);
    });
}

void SimulatedEnd::postOnStream(StreamState& stream, Queue::Block block) {
    Queue::Block guarded = [weak = stream.handle, block = std::move(block)]() mutable {
        if (const auto handle = weak.lock()) block();
    };
    if (stream.queue) {
        stream.queue->post(std::move(guarded));
    } else {
        stream.heldCompletions.push_back(std::move(guarded));
    }
}

void SimulatedEnd::complete(StreamState& stream, Stream::SendCompletion completion,
                            std::optional<TransportError> error) {
    if (!completion) return;
    postOnStream(stream,
                 [completion = std::move(completion), error]() mutable { completion(std::move(error)); });
}

void SimulatedEnd::sendOn(const StreamPointer& stream, Bytes data, Stream::SendCompletion completion) {
    if (stream->isFinal() || stream->isEnding || hasEnded()) {
        return complete(*stream, std::move(completion), stream->error.value_or(wasCancelled));
    }
    stream->outgoing.push_back({std::move(data), 0, std::move(completion)});
    pumpSoon();
}

void SimulatedEnd::receiveOn(const StreamPointer& stream, std::size_t count,
                             Stream::ReceiveCompletion completion) {
    assert(count > 0 && !stream->request && "a read of nothing, or two at once");
    stream->requested = count;
    stream->request = std::move(completion);
    serveRead(stream);
}

void SimulatedEnd::serveRead(const StreamPointer& stream) {
    if (!stream->request) return;
    if (stream->error) return answer(*stream, {.data = {}, .error = stream->error});
    const bool heldSenderUp = stream->unread.size() * 2 > link.streamWindow;
    const auto wanted = std::min(stream->requested - stream->collected.size(), stream->unread.size());
    const auto begin = stream->unread.begin();
    const auto stop = begin + static_cast<std::ptrdiff_t>(wanted);
    stream->collected.insert(stream->collected.end(), begin, stop);
    stream->unread.erase(begin, stop);
    if (stream->collected.size() == stream->requested) {
        answer(*stream, {.data = std::exchange(stream->collected, {})});
    } else if (stream->isReadToItsEnd()) {
        answer(*stream, {.data = std::exchange(stream->collected, {}), .isComplete = true});
    }
    if (stream->isClosed && stream->isReadToItsEnd()) moveStreamTo(stream, TransportState::cancelled);
    if (const auto peer = peer_.lock(); peer && heldSenderUp) {
        link.later(outPath().conditions.delay, [peer] { peer->pump(); });
    }
}

void SimulatedEnd::answer(StreamState& stream, Stream::Received received) {
    postOnStream(stream, [completion = std::exchange(stream.request, nullptr),
                          received = std::move(received)]() mutable { completion(std::move(received)); });
}

void SimulatedEnd::cancelStream(const StreamPointer& stream) {
    if (stream->isFinal() || stream->isEnding) return;
    stream->isEnding = true;
    stream->error = wasCancelled;
    serveRead(stream);
    if (group.state != TransportState::ready || stream->isClosed) return finishCancelling(stream);
    link.later(flushTime, [self = shared_from_this(), stream] { self->finishCancelling(stream); });
    pumpSoon();
}

void SimulatedEnd::finishCancelling(const StreamPointer& stream) {
    if (stream->isFinal()) return;
    if (!stream->endSent) {  // it did not all leave in time: the peer finds the stream cut off
        if (const auto peer = peer_.lock()) {
            const auto at = outPath().conditions.delay;
            link.whenAlive([this, self = shared_from_this(), peer, id = stream->id, at] {
                link.later(at, [peer, id] {
                    const auto cut = peer->streams_.find(id);
                    if (cut == peer->streams_.end() || cut->second->isFinal()) return;
                    cut->second->endsAt = cut->second->receivedOffset;
                    peer->serveRead(cut->second);
                });
            });
        }
    }
    for (auto& rest : std::exchange(stream->outgoing, {})) {
        complete(*stream, std::move(rest.completion), wasCancelled);
    }
    moveStreamTo(stream, TransportState::cancelled);
    closeIfLastIsGone();
}

// The flow.

std::shared_ptr<SimulatedFlow> SimulatedEnd::takeFlow() {
    if (!link.carriesDatagrams || flow.isTaken || group.state != TransportState::ready) return nullptr;
    flow.isTaken = true;
    flow.state = TransportState::ready;
    auto handle = std::make_shared<SimulatedFlow>(shared_from_this());
    flow.handle = handle;
    return handle;
}

void SimulatedEnd::announceFlow() {
    const auto handle = groupHandle.lock();
    if (flow.unheard.empty() || !group.queue || !handle || !handle->onDatagramFlow) return;
    auto arrived = takeFlow();
    if (!arrived) return;
    group.queue->post([weak = groupHandle, arrived = std::move(arrived)]() mutable {
        const auto group = weak.lock();
        if (!group) return;
        if (const auto notify = group->onDatagramFlow) notify(std::move(arrived));
    });
}

void SimulatedEnd::startFlow(Queue& queue) {
    assert(!flow.queue && "started twice");
    flow.queue = &queue;
    if (flow.state == TransportState::ready) moveFlowTo(TransportState::ready);
    for (auto& datagram : std::exchange(flow.unheard, {})) arriveDatagram(datagram);
}

void SimulatedEnd::moveFlowTo(TransportState state, std::optional<TransportError> error) {
    if (isFinal(flow.state)) return;
    flow.state = state;
    tellFlow([state, error](SimulatedFlow& handle) {
        if (const auto notify = handle.onState) notify(state, error);
    });
}

void SimulatedEnd::tellFlow(UniqueFunction<void(SimulatedFlow&)> tell) {
    if (!flow.queue) return;
    flow.queue->post([weak = flow.handle, tell = std::move(tell)]() mutable {
        if (const auto handle = weak.lock()) tell(*handle);
    });
}

void SimulatedEnd::sendDatagrams(std::vector<SharedBytes> datagrams, std::uint64_t tag) {
    if (flow.state != TransportState::ready) return;
    for (auto& datagram : datagrams) {
        if (!datagram || datagram->empty()) continue;
        if (datagram->size() > link.usableDatagramFrameSize.value_or(QUICSetup::maxDatagramFrameSize)) {
            link.oversizedDatagrams += 1;
            flow.statistics.datagramsDropped += 1;
            continue;
        }
        flow.queuedBytes += datagram->size();
        flow.queued.push_back({std::move(datagram), tag, link.now()});
    }
    pumpSoon();
}

void SimulatedEnd::cancelFlow() {
    if (isFinal(flow.state) || !flow.isTaken) return;
    flow.queued.clear();
    flow.queuedBytes = 0;
    moveFlowTo(TransportState::cancelled);
    closeIfLastIsGone();
}

// Sending.

SimulatedPath& SimulatedEnd::outPath() const {
    return side == Side::connector ? link.toListener : link.toConnector;
}

SimulatedPath& SimulatedEnd::backPath() const {
    return side == Side::connector ? link.toConnector : link.toListener;
}

void SimulatedEnd::pumpSoon() {
    if (std::exchange(pumpIsPosted_, true)) return;
    link.post([self = shared_from_this()] {
        self->pumpIsPosted_ = false;
        self->pump();
    });
}

void SimulatedEnd::pump() {
    if (group.state != TransportState::ready) return;
    flow.statistics.congestionWindow = outPath().congestionWindow(link.idleRtt());
    const bool hadDatagrams = !flow.queued.empty();
    while (bytesInFlight_ < flow.statistics.congestionWindow && !isPacing_) {
        auto packet = nextPacket();
        if (!packet) break;
        pace(transmit(std::move(*packet)));
    }
    flow.statistics.bytesInFlight = bytesInFlight_;
    if (hadDatagrams && flow.queued.empty()) {
        tellFlow([](SimulatedFlow& handle) {
            if (const auto notify = handle.onDrained) notify();
        });
    }
}

void SimulatedEnd::pace(std::size_t sent) {
    const auto wait = outPath().pacingWait(sent);
    if (wait.count() == 0) return;
    isPacing_ = true;
    link.later(wait, [self = shared_from_this()] {
        self->isPacing_ = false;
        self->pump();
    });
}

/// Streams go before datagrams: input and control are not to wait behind a picture.
std::optional<SimulatedEnd::Packet> SimulatedEnd::nextPacket() {
    if (!repetitions_.empty()) {
        Packet packet = std::move(repetitions_.front());
        repetitions_.pop_front();
        return packet;
    }
    for (const auto& [id, stream] : streams_) {
        if (auto segment = nextSegment(stream)) return std::move(*segment);
    }
    if (flow.queued.empty()) return std::nullopt;
    QueuedDatagram datagram = std::move(flow.queued.front());
    flow.queued.pop_front();
    flow.queuedBytes -= datagram.data->size();
    flow.statistics.datagramsSent += 1;
    flow.statistics.bytesSent += datagram.data->size();
    return datagram;
}

std::optional<SimulatedEnd::Segment> SimulatedEnd::nextSegment(const StreamPointer& stream) {
    if (stream->isFinal() || stream->endSent) return std::nullopt;
    Segment segment{.stream = stream, .offset = stream->sentOffset};
    if (stream->outgoing.empty()) {
        if (!stream->isEnding) return std::nullopt;
        stream->endSent = segment.endsStream = true;
        stream->unacknowledged += 1;
        return segment;
    }
    std::uint64_t consumed = 0;
    if (const auto peer = peer_.lock()) {
        const auto other = peer->streams_.find(stream->id);
        if (other != peer->streams_.end()) consumed = other->second->consumedOffset();
    }
    if (stream->sentOffset >= consumed + link.streamWindow) return std::nullopt;
    Outgoing& chunk = stream->outgoing.front();
    const auto count = std::min(segmentSize, chunk.data.size() - chunk.taken);
    const auto begin = chunk.data.begin() + static_cast<std::ptrdiff_t>(chunk.taken);
    segment.data.assign(begin, begin + static_cast<std::ptrdiff_t>(count));
    chunk.taken += count;
    stream->sentOffset += count;
    stream->unacknowledged += 1;
    if (chunk.taken == chunk.data.size()) {
        complete(*stream, std::move(chunk.completion));
        stream->outgoing.pop_front();
    }
    return segment;
}

std::size_t SimulatedEnd::transmit(Packet packet) {
    const auto now = link.now();
    std::vector<HostClock::duration> arrivals;
    std::size_t size = 0;
    if (const auto* datagram = std::get_if<QueuedDatagram>(&packet)) {
        size = datagram->data->size();
        arrivals = outPath().carryDatagram(*datagram->data, now);
    } else {
        size = std::get<Segment>(packet).data.size() + 1;
        if (const auto arrival = outPath().carryStreamData(size, now)) arrivals.push_back(*arrival);
    }
    bytesInFlight_ += size;
    if (!std::exchange(hasSentSinceHeard_, true)) idleSince_ = now;

    const auto shared = std::make_shared<Packet>(std::move(packet));
    const auto self = shared_from_this();
    if (arrivals.empty()) {
        // Found out by what is acknowledged after it, so a little past the round trip, and not while the link
        // is dead.
        const auto rtt = std::max<HostClock::duration>(flow.statistics.smoothedRtt, link.idleRtt());
        link.later(rtt * 9 / 8 + 1ms, [self, shared, size] {
            self->link.whenAlive([self, shared, size] { self->lost(std::move(*shared), size); });
        });
        return size;
    }
    for (const auto arrival : arrivals) {
        link.later(arrival, [peer = peer_, shared] {
            if (const auto other = peer.lock()) other->arrive(*shared);
        });
    }
    link.later(arrivals.front(), [self, shared, size, now] {
        self->link.whenAlive([self, shared, size, now] {
            self->link.later(self->backPath().conditions.delay,
                             [self, shared, size, now] { self->acknowledged(*shared, size, now); });
        });
    });
    return size;
}

void SimulatedEnd::acknowledged(const Packet& packet, std::size_t size, HostClock::time_point sentAt) {
    if (hasEnded()) return;
    bytesInFlight_ -= size;
    idleSince_ = link.now();
    hasSentSinceHeard_ = false;
    auto& statistics = flow.statistics;
    const std::chrono::microseconds rtt = link.now() - sentAt;
    statistics.latestRtt = rtt;
    statistics.minRtt = statistics.minRtt.count() == 0 ? rtt : std::min(statistics.minRtt, rtt);
    statistics.smoothedRtt =
        statistics.smoothedRtt.count() == 0 ? rtt : (statistics.smoothedRtt * 7 + rtt) / 8;
    if (const auto* segment = std::get_if<Segment>(&packet)) {
        const auto& stream = segment->stream;
        stream->unacknowledged -= 1;
        if (stream->endSent && stream->unacknowledged == 0) finishCancelling(stream);
    } else {
        statistics.datagramsAcked += 1;
    }
    pump();
}

void SimulatedEnd::lost(Packet packet, std::size_t size) {
    if (hasEnded()) return;
    bytesInFlight_ -= size;
    if (auto* segment = std::get_if<Segment>(&packet)) {
        if (!segment->stream->isFinal()) repetitions_.push_back(std::move(*segment));
    } else {
        flow.statistics.datagramsLost += 1;
        if (const auto tag = std::get<QueuedDatagram>(packet).tag) {
            tellFlow([tag](SimulatedFlow& handle) {
                if (const auto notify = handle.onLost) notify(tag);
            });
        }
    }
    pump();
}

// Receiving.

void SimulatedEnd::arrive(const Packet& packet) {
    if (hasEnded()) return;
    idleSince_ = link.now();
    hasSentSinceHeard_ = false;
    if (const auto* segment = std::get_if<Segment>(&packet)) {
        arriveSegment(*segment);
    } else {
        arriveDatagram(*std::get<QueuedDatagram>(packet).data);
    }
}

void SimulatedEnd::arriveSegment(const Segment& segment) {
    const StreamPointer stream = streamOf(segment.stream->id);
    if (stream->isFinal()) return;
    if (segment.endsStream) {
        stream->endsAt = segment.offset;
    } else if (segment.offset >= stream->receivedOffset) {
        stream->early.emplace(segment.offset, segment.data);
    }
    for (auto next = stream->early.find(stream->receivedOffset); next != stream->early.end();
         next = stream->early.find(stream->receivedOffset)) {
        stream->unread.insert(stream->unread.end(), next->second.begin(), next->second.end());
        stream->receivedOffset += next->second.size();
        stream->early.erase(next);
    }
    if (stream->receivedOffset > 0) announceStream(stream);
    serveRead(stream);
}

void SimulatedEnd::arriveDatagram(const Bytes& datagram) {
    if (isFinal(flow.state)) return;
    if (flow.queue) {
        return tellFlow([datagram](SimulatedFlow& handle) {
            if (const auto notify = handle.onDatagram) notify(datagram);
        });
    }
    if (flow.unheard.size() < maxUnheardDatagrams) flow.unheard.push_back(datagram);
    announceFlow();
}

// Ending.

void SimulatedEnd::closeIfLastIsGone() {
    const bool hasStreams = std::any_of(streams_.begin(), streams_.end(),
                                        [](const auto& entry) { return !entry.second->isFinal(); });
    const bool hasFlow = flow.isTaken && !isFinal(flow.state);
    const bool hadAny = !streams_.empty() || flow.isTaken;
    if (hasEnded() || hasStreams || hasFlow || !(hadAny || groupIsDropped_)) return;
    close();
}

void SimulatedEnd::close() {
    if (const auto peer = peer_.lock(); peer && !outPath().isDead) {
        link.later(outPath().conditions.delay, [peer] { peer->end(std::nullopt); });
    }
    end(std::nullopt);
}

void SimulatedEnd::end(std::optional<TransportError> error) {
    if (hasEnded()) return;
    const auto state = error ? TransportState::failed : TransportState::cancelled;
    moveGroupTo(state, error);
    for (const auto& [id, stream] : std::map(streams_)) endStream(stream, error);
    flow.queued.clear();
    flow.queuedBytes = 0;
    if (flow.isTaken) moveFlowTo(state, error);
}

/// Closed by the peer: what has arrived is read first, then the reader hears of the end.
void SimulatedEnd::endStream(const StreamPointer& stream, const std::optional<TransportError>& error) {
    if (stream->isFinal()) return;
    for (auto& rest : std::exchange(stream->outgoing, {})) {
        complete(*stream, std::move(rest.completion), error.value_or(wasCancelled));
    }
    if (error) {
        stream->error = error;
        serveRead(stream);
        return moveStreamTo(stream, TransportState::failed, error);
    }
    if (stream->isEnding) return moveStreamTo(stream, TransportState::cancelled);
    stream->isClosed = true;
    stream->endsAt = stream->receivedOffset;
    serveRead(stream);
    if (stream->isReadToItsEnd()) moveStreamTo(stream, TransportState::cancelled);
}

void SimulatedEnd::watchForSilence() {
    const auto left = idleSince_ + QUICSetup::idleTimeout - link.now();
    if (left <= HostClock::duration{0}) return end(timedOut);
    link.later(left, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self && !self->hasEnded()) self->watchForSilence();
    });
}

}  // namespace velmora
