#include "VelmoraKit/Core/HostClock.h"

#include <cmath>
#include <limits>

namespace velmora {

HostClock::time_point HostClock::now() {
    const auto ticks = std::chrono::steady_clock::now().time_since_epoch();
    return time_point(std::chrono::duration_cast<duration>(ticks));
}

std::uint64_t HostClock::micros(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) return 0;
    const double scaled = seconds * 1e6;
    if (scaled >= 0x1p64) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(scaled);
}

}  // namespace velmora
