#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/Stream.h"

namespace velmora {

class QuicSession;
class QuicStream;

/// What a stream's owner and the network thread share of it. Each side calls its own half; a mutex guards the
/// fields, and nothing is called out while it is held. The owner's half is wrapped by QuicStream.
class StreamChannel : public std::enable_shared_from_this<StreamChannel> {
public:
    struct Outgoing {
        Bytes data;
        Stream::SendCompletion completion;
    };
    /// What the owner has asked for since the network thread last looked.
    struct Work {
        std::vector<Outgoing> outgoing;
        std::uint64_t grant = 0;  // bytes more that the peer may send
        bool cancel = false;
    };

    /// `window`: how many unread bytes the peer may have under way at first; it grows with what is read.
    StreamChannel(std::shared_ptr<QuicSession> session, std::uint64_t window);

    // The owner's half
    void start(Queue& queue, std::weak_ptr<QuicStream> stream);
    void receiveExactly(std::size_t count, Stream::ReceiveCompletion completion);
    void send(Bytes data, Stream::SendCompletion completion);
    void cancel();
    void abandon();  // the owner is gone: nothing is told any more, and the stream is cancelled
    TransportState state() const { return state_; }
    std::string remoteDescription() const;
    std::string interfaceDescription() const;

    // The network thread's half
    Work takeWork();
    void becameReady(const std::string& remote);
    void received(ByteView data, bool isLast);
    void sent(std::vector<Stream::SendCompletion> completions, const std::optional<TransportError>& error);
    /// The peer sends no more, though it did not end the stream.
    void receivingFailed(const TransportError& error);
    void ended(TransportState final, const std::optional<TransportError>& error);

private:
    struct Report {
        TransportState state;
        std::optional<TransportError> error;
    };
    void askNetworkLocked();
    void tellOwnerLocked();
    void deliver();
    bool hasSomethingForOwner() const;
    bool isAnswerable() const;
    Stream::Received takeAnswer();
    void grantLocked();

    const std::shared_ptr<QuicSession> session_;
    const std::uint64_t firstWindow_;
    std::atomic<TransportState> state_{TransportState::setup};

    mutable std::mutex mutex_;  // guards everything below
    Queue* queue_ = nullptr;    // set from start to abandon
    std::weak_ptr<QuicStream> stream_;
    bool deliveryPosted_ = false;
    bool networkAsked_ = false;
    Work work_;

    Bytes buffer_;  // received, from bufferStart_ on
    std::size_t bufferStart_ = 0;
    std::optional<std::size_t> wanted_;
    Stream::ReceiveCompletion wantedCompletion_;
    bool everWanted_ = false;
    bool peerEnded_ = false;
    bool cancelled_ = false;
    std::optional<TransportError> receiveError_;
    std::uint64_t consumed_ = 0, granted_ = 0;
    std::uint64_t window_;

    struct Sent {
        Stream::SendCompletion completion;
        std::optional<TransportError> error;
    };
    std::deque<Sent> sent_;
    std::deque<Report> reports_;
    std::optional<Report> final_;
    bool ended_ = false;  // the final report has been queued or made; sends fail at once
    std::string remote_ = "?";
};

/// A stream as its owner holds it.
class QuicStream final : public Stream, public std::enable_shared_from_this<QuicStream> {
public:
    explicit QuicStream(std::shared_ptr<StreamChannel> channel) : channel_(std::move(channel)) {}
    ~QuicStream() override { channel_->abandon(); }

    void start(Queue& queue) override { channel_->start(queue, weak_from_this()); }
    void receiveExactly(std::size_t count, ReceiveCompletion completion) override {
        channel_->receiveExactly(count, std::move(completion));
    }
    void send(Bytes data, SendCompletion completion) override {
        channel_->send(std::move(data), std::move(completion));
    }
    void cancel() override { channel_->cancel(); }
    TransportState state() const override { return channel_->state(); }
    std::string remoteDescription() const override { return channel_->remoteDescription(); }
    std::string interfaceDescription() const override { return channel_->interfaceDescription(); }

private:
    const std::shared_ptr<StreamChannel> channel_;
};

}  // namespace velmora
