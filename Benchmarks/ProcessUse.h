#pragma once

#include <sys/types.h>

namespace velmora {

/// What a process has used so far.
struct ProcessUse {
    double cpuSeconds = 0;
    double megabytes = 0;  // resident
};
ProcessUse useOf(pid_t pid);

}  // namespace velmora
