#include "Host/LossProtection.h"

#include <cmath>
#include <utility>

namespace velmora {

void LossProtection::update(const PathStatistics& path, Duration delay, TimePoint now) {
    const auto previous = std::exchange(lastSample_, now);
    const PathStatistics before = std::exchange(lastPath_, path);
    if (!previous) return;

    lateSamples_ = delay > parameters_.calmDelay ? lateSamples_ + 1 : 0;
    if (lateSamples_ > 0) lastLate_ = now;
    if (sendsTwice_ && (lateSamples_ >= parameters_.lateSamples || delay > parameters_.lateDelay)) {
        sendsTwice_ = false;
        pausesUntil_ = now + parameters_.pause;
    }

    const bool isRandom = !lastLate_ || now - *lastLate_ > parameters_.lossesLag;
    const double lost = isRandom ? static_cast<double>(path.datagramsLost - before.datagramsLost) : 0;
    const auto acked = static_cast<double>(path.datagramsAcked - before.datagramsAcked);
    // Without traffic nothing is learnt, and nothing forgotten: typing resumes on the same path.
    if (lost + acked == 0) return;
    const double fade = std::exp(-std::chrono::duration<double>(now - *previous) /
                                 std::chrono::duration<double>(parameters_.memory));
    packets_ = packets_ * fade + lost + acked;
    lost_ = lost_ * fade + lost;

    const double share = lost_ / packets_;
    if (share < parameters_.endBelow || share > parameters_.congestion) {
        sendsTwice_ = false;
    } else if (!sendsTwice_ && share >= parameters_.beginAt && lost_ >= parameters_.leastLost) {
        sendsTwice_ = delay <= parameters_.calmDelay && (!pausesUntil_ || now >= *pausesUntil_);
    }
}

}  // namespace velmora
