#pragma once

#include <chrono>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Transport/DatagramFlow.h"

namespace velmora {

/// Decides whether each datagram goes out twice. On a path that loses packets at random a frame of thirty
/// loses one of them every other time at 2 %, and each repair costs a round trip with every later frame
/// waiting behind it. A copy some milliseconds later, past a burst of loss, repairs without asking; a viewer
/// takes a repeated packet as the same one. It doubles the bytes, so whoever asks halves the encoder's rate,
/// and it does nothing against a queue that overflows: what is lost while packets wait in the path's queues
/// is the rate controller's subject. Pure; used on the capture queue.
class LossProtection {
public:
    using TimePoint = HostClock::time_point;
    using Duration = std::chrono::microseconds;

    struct Parameters {
        double beginAt = 0.005, endBelow = 0.002;  // share of packets lost
        double congestion = 0.15;                  // so much is no random loss
        double leastLost = 2.5;                    // recently; one loss in a small sample says nothing
        Duration memory{5'000'000};                // losses count half as much after 0.7 of it
        Duration calmDelay{30'000};                // more of it in the path's queues: no time to double
        Duration lateDelay{100'000};               // no time at all
        Duration lossesLag{1'000'000};             // a queue that overflowed is told of so much later at most
        int lateSamples = 5;                       // on end: the doubling itself may be what is too much
        Duration pause{5'000'000};                 // after that
        Duration spacing{6'000};                   // of the copies: longer than most bursts of loss
    };

    LossProtection() = default;
    explicit LossProtection(Parameters parameters) : parameters_(parameters) {}

    /// `delay`: how long packets wait in the path's queues. To be called some ten times a second.
    void update(const PathStatistics& path, Duration delay, TimePoint now);
    bool sendsTwice() const { return sendsTwice_; }
    Duration spacing() const { return parameters_.spacing; }

private:
    const Parameters parameters_{};
    std::optional<TimePoint> lastSample_;
    PathStatistics lastPath_;
    double packets_ = 0, lost_ = 0;  // fading
    bool sendsTwice_ = false;
    int lateSamples_ = 0;
    std::optional<TimePoint> lastLate_;
    std::optional<TimePoint> pausesUntil_;
};

}  // namespace velmora
