#include "Platform/Linux/Network/StreamChannel.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

#include "Platform/Linux/Network/InterfaceName.h"
#include "Platform/Linux/Network/QuicSession.h"

namespace velmora {

namespace {

constexpr std::uint64_t maxWindow = 1 << 20;  // 1 MiB per round trip: 200 Mbit/s at 40 ms

const TransportError cancelledError{ECANCELED, "cancelled"};

}  // namespace

StreamChannel::StreamChannel(std::shared_ptr<QuicSession> session, std::uint64_t window)
    : session_(std::move(session)), firstWindow_(window), granted_(window), window_(window) {}

void StreamChannel::start(Queue& queue, std::weak_ptr<QuicStream> stream) {
    std::lock_guard lock(mutex_);
    if (queue_) return;
    queue_ = &queue;
    stream_ = std::move(stream);
    if (state_ == TransportState::setup) reports_.push_back({TransportState::preparing, std::nullopt});
    tellOwnerLocked();
}

void StreamChannel::receiveExactly(std::size_t count, Stream::ReceiveCompletion completion) {
    assert(count > 0 && "asked for no bytes");
    std::lock_guard lock(mutex_);
    assert(!wanted_ && "a second receive while one is outstanding");
    wanted_ = count;
    wantedCompletion_ = std::move(completion);
    everWanted_ = true;
    grantLocked();
    tellOwnerLocked();
}

void StreamChannel::send(Bytes data, Stream::SendCompletion completion) {
    std::lock_guard lock(mutex_);
    if (ended_ || cancelled_) {
        sent_.push_back(
            {std::move(completion), final_ ? final_->error.value_or(cancelledError) : cancelledError});
        tellOwnerLocked();
        return;
    }
    work_.outgoing.push_back({std::move(data), std::move(completion)});
    askNetworkLocked();
}

void StreamChannel::cancel() {
    std::lock_guard lock(mutex_);
    if (cancelled_ || ended_) return;
    cancelled_ = true;
    work_.cancel = true;
    askNetworkLocked();
    tellOwnerLocked();
}

void StreamChannel::abandon() {
    // What the owner's closures hold goes after the lock is released: it may reach back here.
    std::deque<Sent> sent;
    Stream::ReceiveCompletion wanted;
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
    sent.swap(sent_);
    wanted = std::move(wantedCompletion_);
    wanted_.reset();
    consumed_ += buffer_.size() - bufferStart_;
    buffer_ = {};
    bufferStart_ = 0;
    // What nobody reads any more must not hold up the connection's other streams.
    work_.grant += std::max(granted_, consumed_ + firstWindow_) - granted_;
    granted_ = std::max(granted_, consumed_ + firstWindow_);
    for (Outgoing& outgoing : work_.outgoing) {
        sent.push_back({std::move(outgoing.completion), std::nullopt});
        outgoing.completion = nullptr;
    }
    if (ended_) return;
    cancelled_ = true;
    work_.cancel = true;
    askNetworkLocked();
}

std::string StreamChannel::remoteDescription() const {
    std::lock_guard lock(mutex_);
    return remote_;
}

std::string StreamChannel::interfaceDescription() const {
    return describeInterfaceTowards(session_->remote());
}

StreamChannel::Work StreamChannel::takeWork() {
    std::lock_guard lock(mutex_);
    networkAsked_ = false;
    return std::exchange(work_, {});
}

void StreamChannel::becameReady(const std::string& remote) {
    std::lock_guard lock(mutex_);
    remote_ = remote;
    if (ended_) return;
    reports_.push_back({TransportState::ready, std::nullopt});
    tellOwnerLocked();
}

void StreamChannel::received(ByteView data, bool isLast) {
    std::lock_guard lock(mutex_);
    if (cancelled_) {  // nobody reads it any more: the peer may go on to its end
        consumed_ += data.size();
        grantLocked();
    } else {
        buffer_.insert(buffer_.end(), data.begin(), data.end());
    }
    peerEnded_ = peerEnded_ || isLast;
    tellOwnerLocked();
}

void StreamChannel::sent(std::vector<Stream::SendCompletion> completions,
                         const std::optional<TransportError>& error) {
    std::lock_guard lock(mutex_);
    for (auto& completion : completions) {
        if (completion) sent_.push_back({std::move(completion), error});
    }
    tellOwnerLocked();
}

void StreamChannel::receivingFailed(const TransportError& error) {
    std::lock_guard lock(mutex_);
    if (!receiveError_) receiveError_ = error;
    tellOwnerLocked();
}

void StreamChannel::ended(TransportState final, const std::optional<TransportError>& error) {
    std::lock_guard lock(mutex_);
    if (std::exchange(ended_, true)) return;
    final_ = Report{final, error};
    if (final == TransportState::failed && !receiveError_) receiveError_ = error;
    peerEnded_ = true;
    for (Outgoing& outgoing : work_.outgoing)
        sent_.push_back({std::move(outgoing.completion), error.value_or(cancelledError)});
    work_.outgoing.clear();
    tellOwnerLocked();
}

/// The network thread is told once, however much comes before it looks.
void StreamChannel::askNetworkLocked() {
    if (std::exchange(networkAsked_, true)) return;
    session_->attendLater(shared_from_this());
}

void StreamChannel::tellOwnerLocked() {
    if (!queue_ || deliveryPosted_ || !hasSomethingForOwner()) return;
    deliveryPosted_ = true;
    queue_->post([self = shared_from_this()] { self->deliver(); });
}

bool StreamChannel::isAnswerable() const {
    return wanted_ &&
           (buffer_.size() - bufferStart_ >= *wanted_ || peerEnded_ || receiveError_ || cancelled_);
}

bool StreamChannel::hasSomethingForOwner() const {
    // The end waits for an owner who is still reading: a farewell that has arrived is heard first.
    const bool unread = buffer_.size() > bufferStart_ && everWanted_ && !cancelled_;
    return !reports_.empty() || !sent_.empty() || isAnswerable() || (final_ && !unread);
}

Stream::Received StreamChannel::takeAnswer() {
    Stream::Received answer;
    const std::size_t held = buffer_.size() - bufferStart_;
    const std::size_t count = std::min(held, *wanted_);
    const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(bufferStart_);
    if (count == held && bufferStart_ == 0) {
        answer.data = std::exchange(buffer_, {});
    } else {
        answer.data.assign(first, first + static_cast<std::ptrdiff_t>(count));
        bufferStart_ += count;
        if (bufferStart_ == buffer_.size()) {
            buffer_.clear();
            bufferStart_ = 0;
        } else if (bufferStart_ > buffer_.size() / 2) {
            buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(bufferStart_));
            bufferStart_ = 0;
        }
    }
    consumed_ += count;
    if (count < *wanted_) {
        if (cancelled_) {
            answer.error = cancelledError;
        } else if (receiveError_) {
            answer.error = receiveError_;
        } else {
            answer.isComplete = true;
        }
    }
    wanted_.reset();
    return answer;
}

/// On the owner's queue: everything there is to tell, one thing at a time, since each may change the rest.
void StreamChannel::deliver() {
    while (true) {
        std::unique_lock lock(mutex_);
        if (!queue_ || !hasSomethingForOwner()) {
            deliveryPosted_ = false;
            return;
        }
        if (!sent_.empty()) {
            Sent next = std::move(sent_.front());
            sent_.pop_front();
            lock.unlock();
            if (next.completion) next.completion(std::move(next.error));
            continue;
        }
        if (reports_.empty() && isAnswerable()) {
            Stream::Received answer = takeAnswer();
            auto completion = std::move(wantedCompletion_);
            grantLocked();
            lock.unlock();
            completion(std::move(answer));
            continue;
        }
        Report report;
        if (!reports_.empty()) {
            report = std::move(reports_.front());
            reports_.pop_front();
        } else {
            report = *std::exchange(final_, std::nullopt);
        }
        state_ = report.state;
        lock.unlock();
        const auto stream = stream_.lock();
        if (!stream) continue;
        if (const auto notify = stream->onState) notify(report.state, report.error);
    }
}

/// The peer may send what was asked for and a window beyond it. The window begins small, so that a stranger
/// can make us hold little, and grows as the owner shows that it reads.
void StreamChannel::grantLocked() {
    window_ = std::clamp<std::uint64_t>(2 * consumed_, window_, maxWindow);
    const std::uint64_t limit = consumed_ + wanted_.value_or(0) + window_;
    // Never for less than half a window: each grant is a frame to the peer, and the library keeps back less.
    if (limit <= granted_ + window_ / 2) return;
    work_.grant += limit - granted_;
    granted_ = limit;
    askNetworkLocked();
}

}  // namespace velmora
