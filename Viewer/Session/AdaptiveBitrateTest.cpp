#include "Viewer/Session/AdaptiveBitrate.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Change = AdaptiveBitrate::Change;
const AdaptiveBitrate::Measurement cleanSecond{.frames = 60};
const AdaptiveBitrate::Measurement oneLost{.frames = 60, .lostFrames = 1};

AdaptiveBitrate startingAt(double target, double ceiling = 20) {
    AdaptiveBitrate bitrate({.initial = target});
    bitrate.limitTo(ceiling);
    return bitrate;
}
std::optional<Change> resends(int frames, int requests) {
    return AdaptiveBitrate().update({.frames = frames, .resendRequests = requests});
}
std::optional<Change> cleanSeconds(AdaptiveBitrate& bitrate, int count) {
    for (int i = 1; i < count; ++i) EXPECT_EQ(bitrate.update(cleanSecond), std::nullopt) << i;
    return bitrate.update(cleanSecond);
}

TEST(AdaptiveBitrateTest, aLostFrameCutsAtOnce) {
    AdaptiveBitrate bitrate;
    EXPECT_EQ(bitrate.update(oneLost), (Change{15, "lowering: 1 frame(s) lost"}));
    EXPECT_EQ(bitrate.target(), 15);
}

TEST(AdaptiveBitrateTest, aTickWithoutFramesIsNoEvidence) {
    AdaptiveBitrate bitrate;
    EXPECT_EQ(bitrate.update({.frames = 0, .lostFrames = 5}), std::nullopt);
    EXPECT_EQ(bitrate.target(), 20);

    bitrate.update(oneLost);
    cleanSeconds(bitrate, 4);
    bitrate.update({.frames = 0});  // must not count as the fifth clean second
    EXPECT_EQ(bitrate.target(), 15);
    EXPECT_TRUE(bitrate.update(cleanSecond));
}

TEST(AdaptiveBitrateTest, aFewResendsAreNormal) {
    EXPECT_EQ(resends(60, 3), std::nullopt);
    EXPECT_EQ(resends(60, 4), (Change{15, "lowering: 4 resend requests"}));
    EXPECT_EQ(resends(20, 2), std::nullopt);
    EXPECT_TRUE(resends(20, 3));
    EXPECT_EQ(resends(40, 2), std::nullopt);  // a limit of exactly two must be exceeded
    EXPECT_TRUE(resends(40, 3));
}

TEST(AdaptiveBitrateTest, theFloorHolds) {
    AdaptiveBitrate atFloor = startingAt(2.0);
    EXPECT_EQ(atFloor.update(oneLost), std::nullopt);
    EXPECT_EQ(atFloor.target(), 2.0);
    AdaptiveBitrate near = startingAt(2.4);
    EXPECT_EQ(near.update(oneLost), std::nullopt);  // 2.0 rounds as 2.4 did
    EXPECT_EQ(near.target(), 2.0);
}

TEST(AdaptiveBitrateTest, delayIsJudgedAgainstTheUsualOne) {
    AdaptiveBitrate bitrate;
    EXPECT_EQ(bitrate.update({.frames = 60, .networkP95 = 40}), std::nullopt);
    EXPECT_EQ(bitrate.update({.frames = 60, .networkP95 = 100}),
              (Change{15, "lowering: network delay 100 ms (usually 41 ms)"}));
    AdaptiveBitrate slowFromTheStart;
    EXPECT_EQ(slowFromTheStart.update({.frames = 60, .networkP95 = 900}), std::nullopt);
}

TEST(AdaptiveBitrateTest, theUsualDelayIsLearnedInALossySecondToo) {
    AdaptiveBitrate bitrate;
    EXPECT_EQ(bitrate.update({.frames = 60, .lostFrames = 2, .networkP95 = 40})->reason,
              "lowering: 2 frame(s) lost");
    EXPECT_EQ(bitrate.update({.frames = 60, .networkP95 = 100})->reason,
              "lowering: network delay 100 ms (usually 41 ms)");
}

TEST(AdaptiveBitrateTest, fiveCleanSecondsRaise) {
    AdaptiveBitrate bitrate;
    bitrate.update(oneLost);
    EXPECT_EQ(cleanSeconds(bitrate, 5), (Change{17, "raising: connection clean for 5 s"}));
    EXPECT_DOUBLE_EQ(bitrate.target(), 16.5);
    EXPECT_EQ(cleanSeconds(bitrate, 5)->mbps, 18);  // the count began anew
    bitrate.update(oneLost);
    cleanSeconds(bitrate, 4);
    bitrate.update(oneLost);
    EXPECT_EQ(cleanSeconds(bitrate, 4), std::nullopt);  // a bad second clears the run
}

TEST(AdaptiveBitrateTest, nothingRaisesAboveTheCeiling) {
    AdaptiveBitrate near = startingAt(19.9);
    EXPECT_EQ(cleanSeconds(near, 5), std::nullopt);  // 20 rounds as 19.9 did
    EXPECT_EQ(near.target(), 20);
    AdaptiveBitrate limited;
    limited.limitTo(6);
    EXPECT_EQ(limited.target(), 6);
    EXPECT_EQ(cleanSeconds(limited, 20), std::nullopt);
    EXPECT_EQ(limited.target(), 6);
}

}  // namespace
}  // namespace velmora
