#include "Host/RateController.h"

#include <algorithm>

namespace velmora {

namespace {

double secondsIn(std::chrono::microseconds span) {
    return std::chrono::duration<double>(span).count();
}

}  // namespace

RateController::RateController(std::int64_t ceiling, Parameters parameters)
    : parameters_(parameters), ceiling_(ceiling), rate_(ceiling) {}

void RateController::setCeiling(std::int64_t bitsPerSecond) {
    const bool wasTheLimit = rate_ >= ceiling_;
    ceiling_ = bitsPerSecond;
    rate_ = wasTheLimit ? ceiling_ : std::min(rate_, ceiling_);
}

void RateController::noteRtt(const PathStatistics& path) {
    // What the transport remembers counts once: after that it may be the round trip of a path long left.
    if (leastRtt_ == Duration::zero()) leastRtt_ = path.minRtt;
    if (path.latestRtt <= Duration::zero()) return;
    leastRtt_ = leastRtt_ == Duration::zero() ? path.latestRtt : std::min(leastRtt_, path.latestRtt);
    leastWhileLate_ = std::min(leastWhileLate_, path.latestRtt);
}

RateController::Interval RateController::measure(const Sample& sample, TimePoint now) {
    const PathStatistics& path = sample.path;
    const double span = secondsIn(now - *lastSample_);
    const auto sent = path.datagramsSent - lastPath_.datagramsSent;
    const auto acked = path.datagramsAcked - lastPath_.datagramsAcked;
    const auto lost = path.datagramsLost - lastPath_.datagramsLost;

    Interval interval;
    // A queue that has gone is over at once, though the smoothed round trip tells of it a while longer.
    const Duration rtt =
        path.latestRtt > Duration::zero() ? std::min(path.smoothedRtt, path.latestRtt) : path.smoothedRtt;
    interval.delay = std::max(rtt - leastRtt_, Duration::zero());
    if (path.datagramsSent > 0 && span > 0) {
        const double size =
            sent > 0 ? static_cast<double>(path.bytesSent - lastPath_.bytesSent) / static_cast<double>(sent)
                     : static_cast<double>(path.bytesSent) / static_cast<double>(path.datagramsSent);
        interval.deliveredBits = static_cast<double>(acked) * size * 8 / span;
    }
    const double queued = static_cast<double>(path.bytesInFlight) * 8;
    interval.isFull = interval.deliveredBits > 0 && interval.delay > parameters_.severeDelay &&
                      queued > interval.deliveredBits * secondsIn(leastRtt_ + parameters_.provenQueue);
    lostPackets_ += lost;
    countedPackets_ += lost + acked;
    if (countedPackets_ >= parameters_.leastPackets) {
        interval.lossy =
            static_cast<double>(lostPackets_) > parameters_.severeLoss * static_cast<double>(countedPackets_);
        lostPackets_ = countedPackets_ = 0;
    }
    return interval;
}

void RateController::update(const Sample& sample, TimePoint now) {
    noteRtt(sample.path);
    const bool isFirst = !lastSample_ || now - *lastSample_ > parameters_.gap;
    if (isFirst) {
        lateSamples_ = 0;
        lostPackets_ = countedPackets_ = 0;
    } else if (now > *lastSample_) {
        const Interval interval = measure(sample, now);
        delay_ = interval.delay;
        const bool isLate =
            interval.delay > parameters_.lateDelay || sample.heldBackShare > parameters_.lateShare;
        const bool isSevere =
            interval.lossy || std::max(interval.delay, sample.queueAge) > parameters_.severeDelay;
        lateSamples_ = isLate ? lateSamples_ + 1 : 0;
        if (!isLate) forgetLateness();

        const Duration sinceCut = lastCut_ ? Duration(now - *lastCut_) : Duration::max();
        const bool isFarTooMuch =
            interval.isFull && interval.deliveredBits < 0.6 * static_cast<double>(rate_);
        const bool mayAct = isFarTooMuch || sinceCut >= parameters_.holdAfterCut + leastRtt_;
        if (mayAct && (isSevere || lateSamples_ >= 2)) {
            cut(interval, sample, now);
        } else if (mayAct && interval.delay <= parameters_.calmDelay && !isLate) {
            grow(sinceCut);
        }
    }
    lastSample_ = now;
    lastPath_ = sample.path;
}

void RateController::cut(const Interval& interval, const Sample& sample, TimePoint now) {
    const double waiting = secondsIn(std::max(interval.delay, sample.queueAge));
    const double share = std::clamp(1 - waiting, parameters_.leastShare, parameters_.lightestCut);
    const double rate = static_cast<double>(rate_);
    if (!interval.lossy && interval.deliveredBits * share > rate) return;  // it drains already
    const double deepest = interval.isFull ? parameters_.leastShare : 1;
    const double wanted = std::clamp(interval.deliveredBits * share, rate * parameters_.deepestCut * deepest,
                                     rate * parameters_.lightestCut);
    carriedBefore_ = std::max(interval.deliveredBits, wanted);
    rate_ = std::min(std::max(static_cast<std::int64_t>(wanted), parameters_.floor), ceiling_);
    lastCut_ = now;
    lateSamples_ = 0;
    if (++cutsWhileLate_ < parameters_.uselessCuts) return;
    leastRtt_ = leastWhileLate_;
    forgetLateness();
}

void RateController::forgetLateness() {
    cutsWhileLate_ = 0;
    leastWhileLate_ = Duration::max();
}

void RateController::grow(Duration sinceCut) {
    const double rate = static_cast<double>(rate_);
    double factor = parameters_.fastGrowth;
    if (carriedBefore_ > 0 && rate >= carriedBefore_ * parameters_.lightestCut) {
        const bool isWider = rate > carriedBefore_ * parameters_.widerFrom;
        factor = isWider || sinceCut > parameters_.forgetCutAfter ? parameters_.renewedGrowth
                                                                  : parameters_.slowGrowth;
    }
    rate_ = std::min(static_cast<std::int64_t>(rate * factor), ceiling_);
}

}  // namespace velmora
