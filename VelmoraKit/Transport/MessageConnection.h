#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/Stream.h"
#include "VelmoraKit/Wire/MessageType.h"

namespace velmora {

/// Typed messages over one ordered byte stream. It knows frames, not what is in them:
/// 0 type u8 | 1 payload length u32 big-endian | 5 payload; nothing between frames.
/// Held by shared_ptr (make it with make_shared): dropping the last one ends the loop and cancels the stream.
/// The callbacks run on `queue`; set them before `start` or `adoptStarted`, and later only on `queue`, where
/// one may also replace itself while it runs.
class MessageConnection : public std::enable_shared_from_this<MessageConnection> {
public:
    static constexpr std::size_t headerSize = 5;
    /// A longer payload announced by the peer ends the connection.
    static constexpr std::size_t maxPayload = 64 * 1024 * 1024;
    /// What a peer may make us hold before it has been admitted.
    static constexpr std::size_t unauthenticatedPayload = 64 * 1024;

    /// `queue` outlives the connection, and is where a stream to be adopted has been started.
    MessageConnection(std::shared_ptr<Stream> stream, Queue& queue);
    MessageConnection(const MessageConnection&) = delete;
    MessageConnection& operator=(const MessageConnection&) = delete;

    /// A message of a known type. The next one is read when this has returned.
    std::function<void(MessageType, Bytes payload)> onMessage;
    /// Every state of the stream; of `failed` and `cancelled` one comes, once, and nothing after it.
    std::function<void(TransportState, const std::optional<TransportError>&)> onStateChange;

    /// Starts the stream and the reading. Either this or `adoptStarted`, once.
    void start();
    /// Starts the reading of a stream that somebody else has started. An end that came before is reported
    /// too.
    void adoptStarted();

    /// Any thread. Sent in the order of the calls; never blocks, never fails visibly: a stream that ends
    /// shows in `onStateChange`. A payload of 4 GiB or more is a programming error and stops the process.
    void send(MessageType type, ByteView payload = {});
    /// Any thread. The same for what may be many megabytes and of which only the newest counts. While more
    /// than `maxPayload` of it waits, the newest is held back, in place of the one before, until the rest is
    /// on its way.
    void sendBulk(MessageType type, Bytes payload);
    /// Any thread. Sends the record's JSON.
    template <class Record>
    void sendJSON(MessageType type, const Record& value) {
        send(type, value.encode());
    }

    /// Bytes handed to the transport and not yet taken over by it, headers included; any thread.
    std::int64_t pendingBytes() const { return pendingBytes_.load(std::memory_order_relaxed); }
    /// Those of them that `sendBulk` brought. They share the path with datagrams.
    std::int64_t pendingBulk() const { return pendingBulk_.load(std::memory_order_relaxed); }

    /// Longer payloads are read and thrown away without being held, and the owner gets an empty one in their
    /// place: for peers that have not been admitted. None lifts it. Holds from the next header on; any
    /// thread.
    void setUnauthenticatedLimit(std::optional<std::size_t> limit);

    /// Lets what has been sent leave for a moment, then ends the stream; any thread.
    void cancel() { stream_->cancel(); }

    std::string remoteDescription() const { return stream_->remoteDescription(); }
    /// For what is not about messages, such as which interface is in use.
    Stream& stream() const { return *stream_; }
    Queue& queue() const { return queue_; }

private:
    enum class Kind { message, bulk };
    void sendFrame(MessageType type, ByteView payload, Kind kind);
    void sendHeldBack();
    void installStateHandler();
    void reportState(TransportState state, const std::optional<TransportError>& error);
    void receiveHeader();
    void handleHeader(const Stream::Received& received);
    void receiveBody(std::uint8_t type, std::size_t length);
    void discardBody(std::uint8_t type, std::size_t remaining);
    void deliver(std::uint8_t type, Bytes payload);
    /// Asks for `count` bytes; `handle` is a member function, called if this object still lives.
    template <class Handle>
    void receive(std::size_t count, Handle handle);

    const std::shared_ptr<Stream> stream_;
    Queue& queue_;
    std::atomic<std::int64_t> pendingBytes_{0}, pendingBulk_{0};
    struct HeldBack {
        MessageType type;
        Bytes payload;
    };
    std::mutex bulkMutex_;  // guards heldBack_, and that what comes from it goes out in its place
    std::optional<HeldBack> heldBack_;
    std::atomic<std::size_t> payloadLimit_{maxPayload};
    bool hasEnded_ = false;  // on queue_
};

}  // namespace velmora
