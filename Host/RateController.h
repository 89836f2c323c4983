#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Transport/DatagramFlow.h"

namespace velmora {

/// Finds the bit rate that the path carries without a standing queue, never above a ceiling.
///
/// Judged by delay, since every byte that waits is latency: how long pictures were held back here, and how
/// far the smoothed round trip lies above the least one. (The least of the last seconds alone would take a
/// standing queue for the path; only when cut after cut changes nothing, the path has become longer.) A path
/// that is late in two samples on end is congested, and what it then delivers is what it can carry: the rate
/// goes a little below that, the more the longer the queue, so that the queue drains in about a second.
/// Blindly cutting by a fixed share left a third of a good link unused, because a large frame alone makes one
/// late sample. Random loss is not congestion: only a tenth of all packets and more counts. After that it
/// grows: fast up to what was delivered before, then slowly, then, when nothing happens for seconds, fast
/// again, since the path has changed. Pure; used on the capture queue.
class RateController {
public:
    using TimePoint = HostClock::time_point;
    using Duration = std::chrono::microseconds;

    struct Parameters {
        std::int64_t floor = 500'000;  // bit/s; below it text is not readable anyway
        Duration lateDelay{40'000};    // of the round trip
        Duration calmDelay{20'000};    // to grow: the queue is really gone
        // A large frame alone waits longer than the limit for a moment; what cannot leave holds back long.
        double lateShare = 0.25;
        Duration severeDelay{120'000};  // either: no second sample is needed
        Duration provenQueue{60'000};  // so much is under way beyond the path: what it delivers is all it can
        double severeLoss = 0.10;
        std::uint64_t leastPackets = 50;             // to judge loss by
        double deepestCut = 0.5, lightestCut = 0.9;  // of the rate, in one step
        double leastShare = 0.3;                     // of what is delivered, to drain a long queue
        double fastGrowth = 1.10, slowGrowth = 1.02, renewedGrowth = 1.06;  // a sample
        Duration holdAfterCut{200'000};                                     // and a round trip on top
        double widerFrom = 1.3;  // times what it carried before, without a queue: it carries more now
        Duration forgetCutAfter{3'000'000};
        int uselessCuts = 6;      // on end, while packets were late: the path itself has become longer
        Duration gap{1'000'000};  // no samples for so long: start measuring anew
    };
    struct Sample {
        Duration queueAge{0};      // of the oldest byte that waits, the worst since the sample before
        double heldBackShare = 0;  // of the time since then: pictures were put off because bytes waited
        PathStatistics path;
    };

    explicit RateController(std::int64_t ceiling) : RateController(ceiling, Parameters()) {}
    RateController(std::int64_t ceiling, Parameters parameters);

    /// A raised ceiling is used at once if the old one was the limit.
    void setCeiling(std::int64_t bitsPerSecond);
    /// To be called some ten times a second while pictures are sent.
    void update(const Sample& sample, TimePoint now);

    std::int64_t bitsPerSecond() const { return rate_; }
    /// How long the path's queues made packets wait, as of the last sample.
    Duration delay() const { return delay_; }
    /// The round trip of the path without queues; 0 until one is known.
    Duration leastRtt() const { return leastRtt_; }
    bool isAtCeiling() const { return rate_ >= ceiling_; }

private:
    struct Interval {
        double deliveredBits = 0;  // per second; 0 if unknown
        bool isFull = false;       // the path's queue never ran dry: it cannot deliver more
        Duration delay{0};
        bool lossy = false;
    };
    Interval measure(const Sample& sample, TimePoint now);
    void noteRtt(const PathStatistics& path);
    void forgetLateness();
    void cut(const Interval& interval, const Sample& sample, TimePoint now);
    void grow(Duration sinceCut);

    const Parameters parameters_;
    std::int64_t ceiling_;
    std::int64_t rate_;
    Duration delay_{0};
    int lateSamples_ = 0;

    std::optional<TimePoint> lastSample_;
    PathStatistics lastPath_;
    std::uint64_t lostPackets_ = 0, countedPackets_ = 0;  // until there are enough to judge

    Duration leastRtt_{0};
    int cutsWhileLate_ = 0;
    Duration leastWhileLate_ = Duration::max();

    std::optional<TimePoint> lastCut_;
    double carriedBefore_ = 0;  // what the path delivered when it was last congested, bit/s
};

}  // namespace velmora
