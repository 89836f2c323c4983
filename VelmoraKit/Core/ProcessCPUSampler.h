#pragma once

#include <cstdint>

namespace velmora {

/// CPU share of this process between calls. Used by one thread.
class ProcessCPUSampler {
public:
    ProcessCPUSampler();
    /// Percent of one core used since the previous call (or construction); past 100 on several cores; 0 if
    /// the clock has not moved.
    double sample();

private:
    std::uint64_t lastCPU_;   // microseconds, user and system
    std::uint64_t lastWall_;  // microseconds of HostClock
};

}  // namespace velmora
