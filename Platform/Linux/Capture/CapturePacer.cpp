#include "Platform/Linux/Capture/CapturePacer.h"

#include <algorithm>
#include <utility>

namespace velmora {

void CapturePacer::change(Time when) {
    if (!changedAt_) changedAt_ = when;
}

void CapturePacer::resume() {
    resumed_ = true;
    if (state_ == State::putOff) state_ = State::waiting;
}

std::optional<CapturePacer::Time> CapturePacer::nextAsk() const {
    const bool due = changedAt_ || wholeWanted_;
    if (state_ != State::waiting || !due) return std::nullopt;
    return std::max(earned_, last_ + interval_ / 2);
}

void CapturePacer::ask() {
    state_ = State::asked;
    resumed_ = false;
}

void CapturePacer::putOff() {
    state_ = resumed_ ? State::waiting : State::putOff;
}

CapturePacer::Capture CapturePacer::begin(Time now) {
    state_ = State::capturing;
    earned_ = std::max(earned_ + interval_, now);
    last_ = now;
    return {std::exchange(wholeWanted_, false), std::exchange(changedAt_, std::nullopt)};
}

void CapturePacer::retryAt(Time when) {
    end();
    wholeWanted_ = true;
    earned_ = std::max(earned_, when);
}

}  // namespace velmora
