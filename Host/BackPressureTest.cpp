#include "Host/BackPressure.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Verdict = BackPressure::Verdict;
constexpr HostClock::time_point start{std::chrono::seconds(1000)};

TEST(BackPressureTest, theLimitOnBytesIsInclusiveAndOverBothPathsTogether) {
    BackPressure gate;
    EXPECT_EQ(gate.judge({.flowBytes = 3'000'000}, start), Verdict::take);
    EXPECT_EQ(gate.judge({.flowBytes = 3'000'001}, start), Verdict::full);
    EXPECT_EQ(gate.judge({.flowBytes = 2'000'000, .streamBytes = 1'000'000}, start), Verdict::take);
    EXPECT_EQ(gate.judge({.flowBytes = 2'000'000, .streamBytes = 1'000'001}, start), Verdict::full);
}

TEST(BackPressureTest, oldBytesPutAPictureOffAndTooManyOfThemCountAsADrop) {
    BackPressure gate;
    EXPECT_EQ(gate.judge({.flowBytes = 100, .flowAge = 25ms}, start), Verdict::take);
    EXPECT_EQ(gate.judge({.flowBytes = 100, .flowAge = 25'001us}, start), Verdict::late);
    EXPECT_EQ(gate.judge({.flowBytes = 3'000'001, .flowAge = 1s}, start), Verdict::full);
}

TEST(BackPressureTest, aStreamThatCarriesThePicturesIsOldOnceItHasNotBeenEmptyForTheLimit) {
    BackPressure gate;
    const BackPressure::Load busy{.streamBytes = 500, .videoOnStream = true};
    EXPECT_EQ(gate.judge(busy, start), Verdict::take);
    EXPECT_EQ(gate.judge(busy, start + 25ms), Verdict::take);
    EXPECT_EQ(gate.judge(busy, start + 26ms), Verdict::late);
    EXPECT_EQ(gate.judge({.videoOnStream = true}, start + 27ms), Verdict::take);
    EXPECT_EQ(gate.judge(busy, start + 60ms), Verdict::take) << "its age starts anew";
    // Beside a flow the stream only carries messages.
    EXPECT_EQ(gate.judge({.streamBytes = 500}, start + 2s), Verdict::take);
}

TEST(BackPressureTest, aQueueOnThePathDrainsBeforeTheNextPictureButNotForLongerThanASecond) {
    BackPressure gate;
    gate.pictureTaken(start);
    EXPECT_EQ(gate.judge({.pathDelay = 80ms, .pathBytes = 100'000}, start), Verdict::take);
    EXPECT_EQ(gate.judge({.pathDelay = 300ms, .pathBytes = 12'000}, start), Verdict::take)
        << "a slow answer, yet hardly anything is on its way";
    EXPECT_FALSE(gate.pathDrains());

    const BackPressure::Load queued{.pathDelay = 81ms, .pathBytes = 12'001};
    EXPECT_EQ(gate.judge(queued, start + 999ms), Verdict::late);
    EXPECT_TRUE(gate.pathDrains());
    EXPECT_EQ(gate.judge(queued, start + 1s), Verdict::take);
    gate.pictureTaken(start + 1s);
    EXPECT_EQ(gate.judge(queued, start + 1001ms), Verdict::late);
    EXPECT_EQ(gate.judge({}, start + 1002ms), Verdict::take);
}

}  // namespace
}  // namespace velmora
