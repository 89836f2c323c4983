#include "Testing/SimulatedHandles.h"

#include <cerrno>
#include <utility>

namespace velmora {

std::shared_ptr<SimulatedGroup> SimulatedGroup::make(std::shared_ptr<SimulatedEnd> end,
                                                     std::function<void()> begin) {
    auto group = std::make_shared<SimulatedGroup>(end, std::move(begin));
    end->groupHandle = group;
    return group;
}

void SimulatedGroup::start(Queue& queue) {
    end_->startGroup(queue);
    if (begin_) begin_();
}

std::shared_ptr<Stream> SimulatedGroup::openStream() {
    return end_->openStream();
}

std::shared_ptr<DatagramFlow> SimulatedGroup::openDatagramFlow() {
    return end_->takeFlow();
}

std::chrono::microseconds SimulatedFlow::oldestPendingAge() const {
    if (end_->flow.queued.empty()) return std::chrono::microseconds{0};
    return end_->link.now() - end_->flow.queued.front().queuedAt;
}

void SimulatedListener::start(Queue& queue) {
    queue_ = &queue;
    if (link_.bind(*this)) return moveTo(TransportState::ready);
    moveTo(TransportState::failed, TransportError{EADDRINUSE, "Address already in use"});
}

void SimulatedListener::cancel() {
    if (isFinal(state_)) return;
    link_.unbind(*this);
    moveTo(TransportState::cancelled);
}

void SimulatedListener::hand(std::shared_ptr<ConnectionGroup> group) {
    queue_->post(alive_.guard([this, group = std::move(group)]() mutable {
        if (const auto notify = onGroup; notify && state_ == TransportState::ready) notify(std::move(group));
    }));
}

void SimulatedListener::moveTo(TransportState state, std::optional<TransportError> error) {
    state_ = state;
    if (!queue_) return;
    queue_->post(alive_.guard([this, state, error] {
        if (const auto notify = onState) notify(state, error);
    }));
}

}  // namespace velmora
