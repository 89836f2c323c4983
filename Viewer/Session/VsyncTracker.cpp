#include "Viewer/Session/VsyncTracker.h"

#include <algorithm>
#include <cmath>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

void VsyncTracker::tick(double timestamp, double targetTimestamp) {
    constexpr double shortestPeriod = 0.001;  // a bad tick must not make the beat infinite
    const std::lock_guard guard(lock_);
    lastVsync_ = timestamp;
    if (targetTimestamp - timestamp > shortestPeriod) period_ = targetTimestamp - timestamp;
}

std::uint64_t VsyncTracker::displayedMicros(std::uint64_t decodedMicros) const {
    const std::lock_guard guard(lock_);
    if (!(lastVsync_ > 0)) return decodedMicros;
    const double since = static_cast<double>(decodedMicros) / 1'000'000 - lastVsync_;
    const double ticks = std::max(0.0, std::ceil(since / period_));
    return HostClock::micros(lastVsync_ + period_ * ticks);
}

}  // namespace velmora
