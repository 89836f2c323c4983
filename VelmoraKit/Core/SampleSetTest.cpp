#include "VelmoraKit/Core/SampleSet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {
namespace {

TEST(SampleSetTest, percentilesAreNearestRank) {
    SampleSet twenty;
    for (int i = 20; i >= 1; --i) twenty.add(i);
    EXPECT_EQ(twenty.percentile(95), 19);
    EXPECT_EQ(twenty.percentile(0), 1);
    EXPECT_EQ(twenty.percentile(100), 20);
    EXPECT_EQ(twenty.average(), 10.5);
    SampleSet pair;
    pair.add(1);
    pair.add(2);
    EXPECT_EQ(pair.percentile(50), 1);
    SampleSet negative;
    negative.add(-3);
    EXPECT_EQ(negative.max(), -3);
    EXPECT_EQ(negative.percentile(50), -3);
}

TEST(SampleSetTest, anEmptySetIsAllZero) {
    const SampleSet empty;
    EXPECT_EQ(empty.average(), 0);
    EXPECT_EQ(empty.max(), 0);
    EXPECT_EQ(empty.percentile(95), 0);
}

TEST(HostClockTest, impossibleSecondsAreZeroMicros) {
    for (const double bad : {std::nan(""), std::numeric_limits<double>::infinity(), 0.0, -1.0}) {
        EXPECT_EQ(HostClock::micros(bad), 0u);
    }
    EXPECT_EQ(HostClock::micros(1.5), 1'500'000u);
    EXPECT_EQ(HostClock::micros(1e300), std::numeric_limits<std::uint64_t>::max());
}

}  // namespace
}  // namespace velmora
