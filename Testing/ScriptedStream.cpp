#include "Testing/ScriptedStream.h"

#include <algorithm>
#include <cassert>

namespace velmora {

void ScriptedStream::receiveExactly(std::size_t count, ReceiveCompletion completion) {
    assert(count > 0 && "a read of nothing");
    assert(!request_ && "two reads at once");
    requested_ = count;
    request_ = std::move(completion);
    serve();
}

void ScriptedStream::send(Bytes data, SendCompletion completion) {
    sent.push_back(std::move(data));
    sends_.push_back(std::move(completion));
}

void ScriptedStream::arrive(ByteView data) {
    buffer_.insert(buffer_.end(), data.begin(), data.end());
    serve();
}

void ScriptedStream::arriveEnd() {
    ended_ = true;
    serve();
}

void ScriptedStream::answerReadWith(Received answer) {
    forcedAnswers_.push_back(std::move(answer));
    serve();
}

void ScriptedStream::completeSend(std::optional<TransportError> error) {
    assert(!sends_.empty());
    SendCompletion completion = std::move(sends_.front());
    sends_.pop_front();
    queue_.post([completion = std::move(completion), error]() mutable { completion(error); });
}

void ScriptedStream::moveTo(TransportState state, std::optional<TransportError> error) {
    presentState = state;
    if (onState) onState(state, error);
}

void ScriptedStream::serve() {
    if (!request_) return;
    Received answer;
    if (!forcedAnswers_.empty()) {
        answer = std::move(forcedAnswers_.front());
        forcedAnswers_.pop_front();
    } else {
        if (bufferedCount() < requested_ && !ended_) return;
        const auto begin = buffer_.begin() + static_cast<std::ptrdiff_t>(offset_);
        const auto count = std::min(requested_, bufferedCount());
        answer.data.assign(begin, begin + static_cast<std::ptrdiff_t>(count));
        answer.isComplete = ended_ && count < requested_;
        offset_ += count;
        if (offset_ == buffer_.size()) {
            buffer_.clear();
            offset_ = 0;
        }
    }
    queue_.post([completion = std::exchange(request_, nullptr), answer = std::move(answer)]() mutable {
        completion(std::move(answer));
    });
}

}  // namespace velmora
