#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Decides whether the network can take another picture now. Pure; used on the capture queue.
///
/// What waits here waits for the pacing of the connection; what waits on the path does so in the buffer of a
/// link that has become too narrow, often a second's worth, and every picture sent meanwhile only joins the
/// end of that queue. Until it has drained none goes, but for one a second: what the path tells may be stale.
class BackPressure {
public:
    struct Parameters {
        std::size_t maxPendingBytes = 3'000'000;   // inclusive; over both paths together
        std::chrono::microseconds maxAge{25'000};  // a picture behind older bytes is stale before it leaves
        std::chrono::microseconds maxPathDelay{80'000};  // what repairs and jitter do not reach
        std::size_t leastQueued = 12'000;                // ten packets: fewer are no queue
        std::chrono::microseconds longestDrain{1'000'000};
    };
    /// What waits to be sent.
    struct Load {
        std::size_t flowBytes = 0;
        std::chrono::microseconds flowAge{0};    // of the oldest of them
        std::size_t streamBytes = 0;             // the control stream's
        bool videoOnStream = false;              // there is no flow: the stream carries the pictures
        std::chrono::microseconds pathDelay{0};  // of the last round trip, above the path's own
        std::size_t pathBytes = 0;               // sent, unacknowledged, more than the path itself holds
        // What they take at the rate that the path carries; 0 if that is not known.
        std::chrono::microseconds pathTime{0};
    };
    enum class Verdict {
        take,
        late,  // put the picture off; it costs nothing but the wait
        full,  // put it off, and count a dropped frame
    };

    BackPressure() = default;
    explicit BackPressure(Parameters parameters) : parameters_(parameters) {}

    Verdict judge(const Load& load, HostClock::time_point now);
    void pictureTaken(HostClock::time_point now) { lastTaken_ = now; }
    /// The path had a queue when `judge` was called last.
    bool pathDrains() const { return pathDrains_; }

private:
    const Parameters parameters_{};
    // A stream does not tell the age of its bytes: they are at most as old as the time since it was last
    // seen empty.
    std::optional<HostClock::time_point> streamBusySince_;
    HostClock::time_point lastTaken_{};
    bool pathDrains_ = false;
};

}  // namespace velmora
