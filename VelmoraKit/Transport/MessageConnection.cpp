#include "VelmoraKit/Transport/MessageConnection.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

namespace {

// Large enough that throwing 64 MiB away is not a million round trips through the queue.
constexpr std::size_t discardedAtOnce = 16 * 1024;

bool holdsExactly(std::size_t count, const Stream::Received& received) {
    return !received.error && received.data.size() == count;
}

}  // namespace

MessageConnection::MessageConnection(std::shared_ptr<Stream> stream, Queue& queue)
    : stream_(std::move(stream)), queue_(queue) {}

void MessageConnection::start() {
    installStateHandler();
    stream_->start(queue_);
    queue_.post([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->receiveHeader();
    });
}

void MessageConnection::adoptStarted() {
    queue_.post([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->installStateHandler();
        // The stream has been running: its end may have been told to nobody while it changed hands.
        const TransportState state = self->stream_->state();
        if (isFinal(state)) self->reportState(state, std::nullopt);
        self->receiveHeader();
    });
}

void MessageConnection::installStateHandler() {
    stream_->onState = [weak = weak_from_this()](TransportState state, const auto& error) {
        if (const auto self = weak.lock()) self->reportState(state, error);
    };
}

void MessageConnection::reportState(TransportState state, const std::optional<TransportError>& error) {
    if (hasEnded_) return;
    hasEnded_ = isFinal(state);
    if (const auto notify = onStateChange) notify(state, error);
}

void MessageConnection::send(MessageType type, ByteView payload) {
    sendFrame(type, payload, Kind::message);
}

void MessageConnection::sendBulk(MessageType type, Bytes payload) {
    const std::lock_guard lock(bulkMutex_);
    if (pendingBulk() > static_cast<std::int64_t>(maxPayload)) {
        heldBack_ = {type, std::move(payload)};
    } else {
        sendFrame(type, payload, Kind::bulk);
    }
}

void MessageConnection::sendHeldBack() {
    const std::lock_guard lock(bulkMutex_);
    if (!heldBack_ || pendingBulk() > static_cast<std::int64_t>(maxPayload)) return;
    const HeldBack next = *std::exchange(heldBack_, std::nullopt);
    sendFrame(next.type, next.payload, Kind::bulk);
}

void MessageConnection::sendFrame(MessageType type, ByteView payload, Kind kind) {
    if (payload.size() > UINT32_MAX) {
        std::fputs("MessageConnection: a payload whose length does not fit its field\n", stderr);
        std::abort();
    }
    ByteWriter frame(headerSize + payload.size());
    frame.u8(byteOf(type));
    frame.u32(static_cast<std::uint32_t>(payload.size()));
    frame.bytes(payload);
    const auto size = static_cast<std::int64_t>(frame.data.size());
    pendingBytes_ += size;
    if (kind == Kind::bulk) pendingBulk_ += size;
    stream_->send(std::move(frame.data), [weak = weak_from_this(), size, kind](const auto&) {
        const auto self = weak.lock();
        if (!self) return;
        self->pendingBytes_ -= size;
        if (kind == Kind::message) return;
        self->pendingBulk_ -= size;
        self->sendHeldBack();
    });
}

void MessageConnection::setUnauthenticatedLimit(std::optional<std::size_t> limit) {
    payloadLimit_ = limit.value_or(maxPayload);
}

template <class Handle>
void MessageConnection::receive(std::size_t count, Handle handle) {
    stream_->receiveExactly(count, [weak = weak_from_this(), handle](Stream::Received received) {
        if (const auto self = weak.lock()) handle(*self, std::move(received));
    });
}

void MessageConnection::receiveHeader() {
    receive(headerSize,
            [](MessageConnection& self, Stream::Received received) { self.handleHeader(received); });
}

void MessageConnection::handleHeader(const Stream::Received& received) {
    if (!holdsExactly(headerSize, received)) {
        // Short data without an error or an end would be a stream that is still well: it keeps sending.
        if (received.error || received.isComplete) cancel();
        return;
    }
    ByteReader reader(received.data);
    const std::uint8_t type = reader.u8().value();
    const std::size_t length = reader.u32().value();
    if (length > maxPayload) return cancel();
    if (length > payloadLimit_) return discardBody(type, length);
    if (length > 0) return receiveBody(type, length);
    deliver(type, {});
}

void MessageConnection::receiveBody(std::uint8_t type, std::size_t length) {
    receive(length, [type, length](MessageConnection& self, Stream::Received received) {
        if (!holdsExactly(length, received)) return self.cancel();
        self.deliver(type, std::move(received.data));
    });
}

void MessageConnection::discardBody(std::uint8_t type, std::size_t remaining) {
    if (remaining == 0) return deliver(type, {});
    const std::size_t count = std::min(remaining, discardedAtOnce);
    receive(count, [type, count, remaining](MessageConnection& self, Stream::Received received) {
        if (!holdsExactly(count, received)) return self.cancel();
        self.discardBody(type, remaining - count);
    });
}

void MessageConnection::deliver(std::uint8_t type, Bytes payload) {
    if (const auto known = messageTypeOf(type)) {
        // A copy: the handler may replace itself.
        if (const auto handle = onMessage) handle(*known, std::move(payload));
    }
    receiveHeader();
}

}  // namespace velmora
