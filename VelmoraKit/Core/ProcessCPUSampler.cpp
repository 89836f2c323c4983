#include "VelmoraKit/Core/ProcessCPUSampler.h"

#include <ctime>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

namespace {
std::uint64_t cpuMicros() {
    static_assert(CLOCKS_PER_SEC == 1'000'000);
    return static_cast<std::uint64_t>(std::clock());
}
}  // namespace

ProcessCPUSampler::ProcessCPUSampler() : lastCPU_(cpuMicros()), lastWall_(HostClock::nowMicros()) {}

double ProcessCPUSampler::sample() {
    const std::uint64_t cpu = cpuMicros();
    const std::uint64_t wall = HostClock::nowMicros();
    double percent = 0;
    if (wall > lastWall_) {
        percent = static_cast<double>(cpu - lastCPU_) / static_cast<double>(wall - lastWall_) * 100;
    }
    lastCPU_ = cpu;
    lastWall_ = wall;
    return percent;
}

}  // namespace velmora
