#pragma once

#include <algorithm>
#include <chrono>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// How fast a client may talk. A host that is asked for often says two things for each viewer, and nothing
/// else comes near this.
class MessageAllowance {
public:
    /// Counts a message; false if it is one too many.
    bool take(HostClock::time_point now) {
        used_ = std::max(0.0F, used_ - std::chrono::duration<float>(now - at_).count() * perSecond);
        at_ = now;
        used_ += 1;
        return used_ <= atOnce;
    }

private:
    static constexpr float perSecond = 10, atOnce = 100;
    float used_ = 0;
    HostClock::time_point at_{};
};

}  // namespace velmora
