#include "Viewer/Session/AdaptiveBitrate.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace velmora {

std::optional<AdaptiveBitrate::Change> AdaptiveBitrate::update(const Measurement& measurement) {
    if (measurement.frames < 1) return std::nullopt;
    const auto complaint = complaintOf(measurement);
    const long before = std::lround(target_);
    if (complaint) {
        cleanSeconds_ = 0;
        target_ = std::max(target_ * parameters_.cut, parameters_.floor);
        return changeSince(before, "lowering: " + *complaint);
    }
    ++cleanSeconds_;
    if (cleanSeconds_ < parameters_.cleanSecondsToRaise || target_ >= ceiling_) return std::nullopt;
    cleanSeconds_ = 0;
    target_ = std::min(target_ * parameters_.raise, ceiling_);
    return changeSince(before,
                       fmt::format("raising: connection clean for {} s", parameters_.cleanSecondsToRaise));
}

void AdaptiveBitrate::limitTo(double mbps) {
    target_ = std::min(target_, mbps);
    ceiling_ = mbps;
}

/// Loss comes before resends, and both before delay. The usual delay is learned in any case: it falls almost
/// at once to a lower one and creeps up to a higher one.
std::optional<std::string> AdaptiveBitrate::complaintOf(const Measurement& m) {
    std::optional<std::string> complaint;
    const double usualResends = m.frames * parameters_.resendShare;
    if (m.lostFrames >= 1) {
        complaint = fmt::format("{} frame(s) lost", m.lostFrames);
    } else if (usualResends >= 2.0 ? m.resendRequests > usualResends
                                   : m.resendRequests >= parameters_.resendsOfFewFrames) {
        complaint = fmt::format("{} resend requests", m.resendRequests);
    }
    if (!m.networkP95) return complaint;

    const double delay = *m.networkP95;
    const double lowest = std::min(delay, baselineDelay_.value_or(delay));
    const double usual = delay * parameters_.baselineWeight + lowest * (1 - parameters_.baselineWeight);
    baselineDelay_ = usual;
    if (!complaint && usual * parameters_.delayFactor + parameters_.delayMargin < delay) {
        complaint = fmt::format("network delay {:.0f} ms (usually {:.0f} ms)", delay, usual);
    }
    return complaint;
}

std::optional<AdaptiveBitrate::Change> AdaptiveBitrate::changeSince(long before, std::string reason) const {
    const long rounded = std::lround(target_);
    if (rounded == before) return std::nullopt;
    return Change{static_cast<int>(rounded), std::move(reason)};
}

}  // namespace velmora
