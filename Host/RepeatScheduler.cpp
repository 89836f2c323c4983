#include "Host/RepeatScheduler.h"

#include <algorithm>

namespace velmora {

namespace {

void takeEarlier(std::optional<RepeatScheduler::TimePoint>& best,
                 const std::optional<RepeatScheduler::TimePoint>& other) {
    if (other && (!best || *other < *best)) best = other;
}

}  // namespace

void RepeatScheduler::sent(const Frame& frame, TimePoint now) {
    const bool isChange = !frame.repeats;
    hasPicture_ = true;
    lastNumber_ = frame.number;
    if (frame.repeats == Kind::closing) {
        ++closingsSent_;
    } else {
        lastFrame_ = now;
        closingsSent_ = 0;
    }
    if (frame.repeats == Kind::sharpening) {
        ++sharpenings_;
        lastSharpening_ = now;
    }
    if (isChange || frame.isKeyframe) {
        restsSince_ = now;
        sharpenings_ = 0;
        quantizer_.reset();
    }
    if (frame.meanQuantizer) quantizer_ = frame.meanQuantizer;
    if (frame.isKeyframe) {
        if (keyframeLostAt_ && !keyframeDueAt_) lastOwnKeyframe_ = now;
        keyframeDueAt_.reset();
        keyframeLostAt_.reset();
        lastKeyframe_ = frame.number;
    }
}

void RepeatScheduler::failed(Kind kind, TimePoint now) {
    switch (kind) {
        case Kind::sharpening:
            ++sharpenings_;
            lastSharpening_ = now;
            return;
        case Kind::closing:
            ++closingsSent_;
            return;
        case Kind::keyframe:
            keyframeLostAt_.reset();
            keyframeDueAt_ = now + parameters_.mendingTime;
            return;
    }
}

void RepeatScheduler::wantKeyframe(TimePoint now) {
    if (!keyframeDueAt_) keyframeDueAt_ = now + parameters_.frameInterval;
}

void RepeatScheduler::lost(std::uint32_t frame, TimePoint now) {
    if (frame == lastKeyframe_ && !keyframeLostAt_) keyframeLostAt_ = now;
    if (frame != lastNumber_ || closingsSent_ < parameters_.closings.size()) return;
    closingsSent_ = parameters_.closings.size() - 1;  // an outage took them all: one more
    lastFrame_ = now;
}

void RepeatScheduler::mended(std::uint32_t frame) {
    if (frame == lastKeyframe_) keyframeLostAt_.reset();
}

void RepeatScheduler::forgetPicture() {
    hasPicture_ = false;
}

std::optional<RepeatScheduler::TimePoint> RepeatScheduler::keyframeDue() const {
    std::optional<TimePoint> due = keyframeDueAt_;
    if (keyframeLostAt_) {
        TimePoint own = *keyframeLostAt_ + parameters_.mendingTime;
        if (lastOwnKeyframe_) own = std::max(own, *lastOwnKeyframe_ + parameters_.ownKeyframeInterval);
        takeEarlier(due, own);
    }
    return due;
}

std::optional<RepeatScheduler::TimePoint> RepeatScheduler::sharpeningDue(TimePoint now) const {
    if (!quantizer_ || *quantizer_ <= parameters_.targetQuantizer) return std::nullopt;
    TimePoint due = restsSince_ + parameters_.sharpeningDelay;
    if (sharpenings_ > 0) due = std::max(due, lastSharpening_ + parameters_.sharpeningInterval);
    const bool isQuick = sharpenings_ < parameters_.maxSharpenings &&
                         std::max(due, now) <= restsSince_ + parameters_.sharpeningLimit;
    if (isQuick) return due;
    const bool isBlurred = *quantizer_ > parameters_.blurredQuantizer;
    if (!isBlurred || sharpenings_ >= parameters_.maxSharpenings + parameters_.maxSlowSharpenings) {
        return std::nullopt;
    }
    return std::max(restsSince_ + parameters_.sharpeningLimit, lastSharpening_ + parameters_.slowInterval);
}

std::optional<RepeatScheduler::TimePoint> RepeatScheduler::closingDue(TimePoint now) const {
    if (closingsSent_ >= parameters_.closings.size()) return std::nullopt;
    if (sharpenings_ > 0 && sharpeningDue(now)) return std::nullopt;  // this is not the last frame
    return lastFrame_ + parameters_.closings[closingsSent_];
}

std::optional<RepeatScheduler::Kind> RepeatScheduler::due(TimePoint now) const {
    const auto isDue = [&](const std::optional<TimePoint>& at) { return hasPicture_ && at && *at <= now; };
    if (isDue(keyframeDue())) return Kind::keyframe;
    if (isDue(sharpeningDue(now))) return Kind::sharpening;
    if (isDue(closingDue(now))) return Kind::closing;
    return std::nullopt;
}

std::optional<RepeatScheduler::TimePoint> RepeatScheduler::nextDue(TimePoint now) const {
    if (!hasPicture_) return std::nullopt;
    std::optional<TimePoint> next = keyframeDue();
    takeEarlier(next, sharpeningDue(now));
    takeEarlier(next, closingDue(now));
    return next;
}

}  // namespace velmora
