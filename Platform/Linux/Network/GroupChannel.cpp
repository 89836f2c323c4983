#include "Platform/Linux/Network/GroupChannel.h"

#include <utility>

#include "Platform/Linux/Network/QuicSession.h"

namespace velmora {

void GroupChannel::start(Queue& queue, std::weak_ptr<QuicGroup> group) {
    std::lock_guard lock(mutex_);
    queue_ = &queue;
    group_ = std::move(group);
    if (!events_.empty()) queue_->post([self = shared_from_this()] { self->deliver(); });
}

void GroupChannel::abandon() {
    // Dropping what has arrived reaches other channels, and this one through them: not under the lock.
    std::deque<Event> events;
    std::shared_ptr<QuicDatagramFlow> flow;
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
    abandoned_ = true;
    events.swap(events_);
    flow.swap(offeredFlow_);
}

std::string GroupChannel::remoteDescription() const {
    std::lock_guard lock(mutex_);
    return remote_;
}

bool GroupChannel::isEnded() const {
    std::lock_guard lock(mutex_);
    return ended_;
}

std::shared_ptr<DatagramFlow> GroupChannel::takeOfferedFlow() {
    std::lock_guard lock(mutex_);
    return std::exchange(offeredFlow_, nullptr);
}

void GroupChannel::setRemote(const std::string& remote) {
    std::lock_guard lock(mutex_);
    remote_ = remote;
}

void GroupChannel::changed(TransportState state, const std::optional<TransportError>& error) {
    std::shared_ptr<QuicDatagramFlow> untaken;  // dropped outside the lock
    std::lock_guard lock(mutex_);
    if (ended_) return;
    ended_ = state == TransportState::failed || state == TransportState::cancelled;
    if (ended_) untaken.swap(offeredFlow_);
    if (!queue_) state_ = state;
    tellLocked([this, state, error](QuicGroup& group) {
        state_ = state;
        if (const auto notify = group.onState) notify(state, error);
    });
}

void GroupChannel::arrived(std::shared_ptr<QuicStream> stream) {
    std::lock_guard lock(mutex_);
    tellLocked([stream = std::move(stream)](QuicGroup& group) {
        if (const auto notify = group.onStream) notify(stream);
    });
}

void GroupChannel::arrived(std::shared_ptr<QuicDatagramFlow> flow) {
    std::lock_guard lock(mutex_);
    tellLocked([flow = std::move(flow)](QuicGroup& group) {
        if (const auto notify = group.onDatagramFlow) notify(flow);
    });
}

void GroupChannel::offer(std::shared_ptr<QuicDatagramFlow> flow) {
    std::lock_guard lock(mutex_);
    if (!ended_ && !abandoned_) offeredFlow_ = std::move(flow);
}

void GroupChannel::tellLocked(Event event) {
    if (abandoned_) return;
    events_.push_back(std::move(event));
    if (queue_ && events_.size() == 1) queue_->post([self = shared_from_this()] { self->deliver(); });
}

void GroupChannel::deliver() {
    while (true) {
        std::unique_lock lock(mutex_);
        if (!queue_ || events_.empty()) return;
        const Event event = std::move(events_.front());
        events_.pop_front();
        const auto group = group_.lock();
        lock.unlock();
        if (group) event(*group);
    }
}

QuicGroup::QuicGroup(std::shared_ptr<QuicSession> session, std::function<void()> begin)
    : session_(std::move(session)), begin_(std::move(begin)) {}

QuicGroup::~QuicGroup() {
    session_->group()->abandon();
    session_->loop().post([session = session_] { session->groupAbandoned(); });
}

void QuicGroup::start(Queue& queue) {
    session_->group()->start(queue, weak_from_this());
    if (auto begin = std::exchange(begin_, nullptr)) session_->loop().post(std::move(begin));
}

void QuicGroup::cancel() {
    session_->loop().post([session = session_] { session->cancel(); });
}

TransportState QuicGroup::state() const {
    return session_->group()->state();
}

std::string QuicGroup::remoteDescription() const {
    return session_->group()->remoteDescription();
}

std::shared_ptr<Stream> QuicGroup::openStream() {
    if (session_->group()->isEnded()) return nullptr;
    auto channel = std::make_shared<StreamChannel>(session_, session_->streamWindow());
    session_->loop().post([session = session_, channel] { session->addStream(channel); });
    return std::make_shared<QuicStream>(std::move(channel));
}

std::shared_ptr<DatagramFlow> QuicGroup::openDatagramFlow() {
    auto flow = session_->group()->takeOfferedFlow();
    if (flow) session_->loop().post([session = session_] { session->flowTaken(); });
    return flow;
}

}  // namespace velmora
