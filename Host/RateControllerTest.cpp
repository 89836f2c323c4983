#include "Host/RateController.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "Host/LossProtection.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// A bottleneck with a buffer, fed sixty frames a second at the rate that the controller allows, each frame
/// in one burst. Its own time, in steps of a millisecond.
class Bottleneck {
public:
    struct Path {
        double bitsPerSecond = 30e6;
        std::chrono::milliseconds roundTrip{20};
        double bufferSeconds = 0.3;
        double lossShare = 0;
    };
    explicit Bottleneck(Path path) : path(path), leastRoundTrip_(path.roundTrip) {}

    /// Runs for `span`; the encoder sends `demand` bit/s at most.
    void run(RateController& controller, std::chrono::milliseconds span, double demand = 1e12) {
        for (const auto end = now + span; now < end; now += 1ms) step(controller, demand);
    }
    std::chrono::milliseconds queueDelay() const {
        return std::chrono::milliseconds(static_cast<int>(queued * 1000 / path.bitsPerSecond));
    }

    Path path;
    HostClock::time_point now{1000s};
    std::chrono::milliseconds worstDelay{0};

private:
    void step(RateController& controller, double demand) {
        ++milliseconds_;
        if (milliseconds_ % 16 == 0) {
            const double rate = std::min(static_cast<double>(controller.bitsPerSecond()), demand);
            send(rate * 0.016);
        }
        const double drained = std::min(queued, path.bitsPerSecond / 1000);
        queued -= drained;
        delivered_ += drained;
        const std::chrono::microseconds rtt = path.roundTrip + queueDelay();
        smoothed_ = smoothed_ == 0us ? rtt : (smoothed_ * 7 + rtt) / 8;
        worstDelay = std::max(worstDelay, queueDelay());
        if (milliseconds_ % 100 != 0) return;
        PathStatistics statistics{.smoothedRtt = smoothed_, .minRtt = leastRoundTrip_, .latestRtt = rtt};
        statistics.datagramsAcked =
            static_cast<std::uint64_t>(delivered_ * (1 - path.lossShare) / packetBits);
        statistics.datagramsLost =
            static_cast<std::uint64_t>((delivered_ * path.lossShare + overflow_) / packetBits);
        statistics.datagramsSent = static_cast<std::uint64_t>(sent_ / packetBits);
        statistics.bytesSent = static_cast<std::uint64_t>(sent_ / 8);
        controller.update({.path = statistics}, now);
    }
    void send(double bits) {
        sent_ += bits;
        queued += bits;
        const double room = path.bitsPerSecond * path.bufferSeconds;
        if (queued > room) overflow_ += queued - room;
        queued = std::min(queued, room);
    }

    static constexpr double packetBits = 1150 * 8;
    double queued = 0, delivered_ = 0, sent_ = 0, overflow_ = 0;
    const std::chrono::milliseconds leastRoundTrip_;
    std::chrono::microseconds smoothed_{0};
    int milliseconds_ = 0;
};

constexpr std::int64_t Mbps = 1'000'000;

TEST(RateControllerTest, aLinkThatCarriesEverythingIsUsedWhole) {
    RateController controller(20 * Mbps);
    Bottleneck link({.bitsPerSecond = 30e6});
    link.run(controller, 10s);
    EXPECT_EQ(controller.bitsPerSecond(), 20 * Mbps);
}

TEST(RateControllerTest, randomLossIsNotCongestion) {
    RateController controller(8 * Mbps);
    Bottleneck link({.bitsPerSecond = 30e6, .roundTrip = 40ms, .lossShare = 0.05});
    link.run(controller, 10s);
    EXPECT_EQ(controller.bitsPerSecond(), 8 * Mbps);
}

TEST(RateControllerTest, aNarrowerLinkIsFilledWithoutAStandingQueue) {
    RateController controller(20 * Mbps);
    Bottleneck link({.bitsPerSecond = 10e6});
    link.run(controller, 5s);
    double sum = 0;
    link.worstDelay = 0ms;
    for (int second = 0; second < 20; ++second) {
        link.run(controller, 1s);
        sum += static_cast<double>(controller.bitsPerSecond());
    }
    EXPECT_GT(sum / 20, 7.5e6);
    EXPECT_LT(sum / 20, 10.5e6);
    EXPECT_LT(link.worstDelay, 150ms);
}

TEST(RateControllerTest, afterALinkNarrowsTheDelayIsBackWithinThreeSeconds) {
    for (const double buffer : {0.1, 0.5, 1.0}) {
        RateController controller(20 * Mbps);
        Bottleneck link({.bitsPerSecond = 30e6, .roundTrip = 40ms, .bufferSeconds = buffer});
        link.run(controller, 3s);
        link.path.bitsPerSecond = 4e6;
        link.run(controller, 3s);
        EXPECT_LT(link.queueDelay(), 110ms) << buffer;
        link.worstDelay = 0ms;
        link.run(controller, 10s);
        EXPECT_LT(link.worstDelay, 150ms) << buffer;
        EXPECT_GT(controller.bitsPerSecond(), 2 * Mbps) << buffer;
    }
}

TEST(RateControllerTest, whenTheLinkIsWideAgainTheRateIsBackWithinSeconds) {
    RateController controller(20 * Mbps);
    Bottleneck link({.bitsPerSecond = 4e6});
    link.run(controller, 10s);
    link.path.bitsPerSecond = 30e6;
    link.run(controller, 8s);
    EXPECT_GT(controller.bitsPerSecond(), 19 * Mbps);
}

TEST(RateControllerTest, oneLateSampleIsAFrameAndTwoAreAQueue) {
    RateController controller(20 * Mbps);
    const HostClock::time_point start{1000s};
    const PathStatistics path{.smoothedRtt = 20ms, .minRtt = 20ms, .latestRtt = 20ms};
    controller.update({.path = path}, start);
    controller.update({.heldBackShare = 0.5, .path = path}, start + 100ms);
    controller.update({.path = path}, start + 200ms);
    controller.update({.heldBackShare = 0.5, .path = path}, start + 300ms);
    EXPECT_EQ(controller.bitsPerSecond(), 20 * Mbps);
    controller.update({.heldBackShare = 0.5, .path = path}, start + 400ms);
    EXPECT_LT(controller.bitsPerSecond(), 20 * Mbps);
}

TEST(RateControllerTest, aLongerWayIsNotTakenForAQueueForEver) {
    RateController controller(20 * Mbps);
    Bottleneck link({.bitsPerSecond = 60e6});
    link.run(controller, 3s);
    link.path.roundTrip = 120ms;
    link.run(controller, 8s);
    EXPECT_EQ(controller.bitsPerSecond(), 20 * Mbps);
}

TEST(RateControllerTest, theCeilingHoldsAndARaisedOneIsUsedAtOnceUnlessThePathWasTheLimit) {
    RateController controller(20 * Mbps);
    controller.setCeiling(5 * Mbps);
    EXPECT_EQ(controller.bitsPerSecond(), 5 * Mbps);
    controller.setCeiling(20 * Mbps);
    EXPECT_EQ(controller.bitsPerSecond(), 20 * Mbps);
    Bottleneck link({.bitsPerSecond = 4e6});
    link.run(controller, 5s);
    controller.setCeiling(40 * Mbps);
    EXPECT_LT(controller.bitsPerSecond(), 6 * Mbps);
}

class LossProtectionTest : public testing::Test {
protected:
    /// A second of `packets`, of which `lost` were lost, in ten samples.
    void second(std::uint64_t packets, std::uint64_t lost, std::chrono::milliseconds queue = 0ms) {
        for (int i = 1; i <= 10; ++i) {
            now += 100ms;
            protection.update({.datagramsAcked = acked + (packets - lost) * i / 10,
                               .datagramsLost = lostSoFar + lost * i / 10},
                              queue, now);
        }
        acked += packets - lost;
        lostSoFar += lost;
    }
    HostClock::time_point now{1000s};
    LossProtection protection;
    std::uint64_t acked = 0, lostSoFar = 0;
};

TEST_F(LossProtectionTest, randomLossTurnsItOnAndACleanPathOff) {
    second(900, 0);
    EXPECT_FALSE(protection.sendsTwice());
    second(900, 18);
    EXPECT_TRUE(protection.sendsTwice());
    for (int i = 0; i < 3; ++i) second(900, 0);
    EXPECT_TRUE(protection.sendsTwice()) << "too early to tell";
    for (int i = 0; i < 20; ++i) second(900, 0);
    EXPECT_FALSE(protection.sendsTwice());
}

TEST_F(LossProtectionTest, oneLostPacketOrAnOverflowingQueueDoNot) {
    second(20, 1);
    EXPECT_FALSE(protection.sendsTwice());
    second(900, 40, 60ms);
    EXPECT_FALSE(protection.sendsTwice()) << "a queue is building";
    second(900, 400);
    EXPECT_FALSE(protection.sendsTwice()) << "so much is congestion";
}

TEST_F(LossProtectionTest, aQueueThatGrowsUnderTheDoublingEndsItForSomeSeconds) {
    second(900, 18);
    second(900, 18, 60ms);
    EXPECT_FALSE(protection.sendsTwice());
    second(900, 18);
    EXPECT_FALSE(protection.sendsTwice());
    for (int i = 0; i < 5; ++i) second(900, 18);
    EXPECT_TRUE(protection.sendsTwice());
}

TEST_F(LossProtectionTest, aPauseForgetsNothing) {
    second(900, 18);
    for (int i = 0; i < 60; ++i) second(0, 0);
    EXPECT_TRUE(protection.sendsTwice());
}

}  // namespace
}  // namespace velmora
