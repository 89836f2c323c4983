#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/Stream.h"

namespace velmora {

/// A stream whose other end is the test: it says what arrives, in which cuts, and when what was sent has been
/// taken over.
class ScriptedStream final : public Stream {
public:
    explicit ScriptedStream(Queue& queue) : queue_(queue) {}

    void start(Queue&) override { startCount += 1; }
    void receiveExactly(std::size_t count, ReceiveCompletion completion) override;
    void send(Bytes data, SendCompletion completion) override;
    void cancel() override { cancelCount += 1; }
    TransportState state() const override { return presentState; }
    std::string remoteDescription() const override { return "192.0.2.1:50000"; }
    std::string interfaceDescription() const override { return "?"; }

    /// The peer sent these, and perhaps ended the stream after them.
    void arrive(ByteView data);
    void arriveEnd();
    /// The read that is waiting, or the next one, gets this answer whatever was asked.
    void answerReadWith(Received answer);
    /// The oldest send that is waiting has been taken over, or has failed.
    void completeSend(std::optional<TransportError> error = std::nullopt);
    void moveTo(TransportState state, std::optional<TransportError> error = std::nullopt);

    /// What the reader asks for now; 0 while it asks for nothing.
    std::size_t requestedCount() const { return request_ ? requested_ : 0; }
    std::size_t bufferedCount() const { return buffer_.size() - offset_; }

    std::vector<Bytes> sent;
    int startCount = 0, cancelCount = 0;
    TransportState presentState = TransportState::ready;

private:
    void serve();

    Queue& queue_;
    Bytes buffer_;
    std::size_t offset_ = 0;
    bool ended_ = false;
    std::size_t requested_ = 0;
    ReceiveCompletion request_;
    std::deque<Received> forcedAnswers_;
    std::deque<SendCompletion> sends_;
};

}  // namespace velmora
