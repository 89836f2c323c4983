#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Decides whether the network can take another picture now. Pure; used on the capture queue.
class BackPressure {
public:
    struct Parameters {
        std::size_t maxPendingBytes = 3'000'000;   // inclusive; over both paths together
        std::chrono::microseconds maxAge{25'000};  // a picture behind older bytes is stale before it leaves
    };
    /// What waits to be sent.
    struct Load {
        std::size_t flowBytes = 0;
        std::chrono::microseconds flowAge{0};  // of the oldest of them
        std::size_t streamBytes = 0;           // the control stream's
        bool videoOnStream = false;            // there is no flow: the stream carries the pictures
    };
    enum class Verdict {
        take,
        late,  // put the picture off; it costs nothing but the wait
        full,  // put it off, and count a dropped frame
    };

    BackPressure() = default;
    explicit BackPressure(Parameters parameters) : parameters_(parameters) {}

    Verdict judge(const Load& load, HostClock::time_point now);

private:
    const Parameters parameters_{};
    // A stream does not tell the age of its bytes: they are at most as old as the time since it was last
    // seen empty.
    std::optional<HostClock::time_point> streamBusySince_;
};

}  // namespace velmora
