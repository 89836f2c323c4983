#pragma once

#include <sys/types.h>

#include <cstddef>

namespace velmora {

/// What a process costs, as the kernel tells it.
struct ProcessFigures {
    int threads = 0, descriptors = 0;
    std::size_t residentKiB = 0;
    double cpuSeconds = 0;

    /// Zeros if there is no such process.
    static ProcessFigures of(pid_t process);
};

}  // namespace velmora
