#include "Host/RepeatScheduler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = RepeatScheduler::Kind;

/// Plays the owner: sends whatever is due the moment it is due, and notes it as "kind@ms".
class RepeatSchedulerTest : public testing::Test {
protected:
    static constexpr double sharp = 12, coarse = 20, blurred = 40;

    void change(std::chrono::milliseconds at, double quantizer = sharp, bool isKeyframe = false) {
        scheduler.sent({.number = ++number, .isKeyframe = isKeyframe, .meanQuantizer = quantizer},
                       origin + at);
    }
    std::vector<std::string> repeatsUntil(std::chrono::milliseconds end) {
        std::vector<std::string> seen;
        const auto limit = origin + end;
        auto now = origin;
        while (const auto next = scheduler.nextDue(now)) {
            now = std::max(now, *next);
            if (now > limit) break;
            const auto kind = scheduler.due(now);
            if (!kind) {
                ADD_FAILURE() << "nextDue promised something";
                break;
            }
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - origin).count();
            seen.push_back(nameOf(*kind) + "@" + std::to_string(ms));
            scheduler.sent({.number = ++number,
                            .repeats = kind,
                            .isKeyframe = *kind == Kind::keyframe,
                            .meanQuantizer = *kind == Kind::closing ? closingQuantizer : repeatQuantizer},
                           now);
        }
        return seen;
    }
    static std::string nameOf(Kind kind) {
        switch (kind) {
            case Kind::sharpening:
                return "sharpening";
            case Kind::closing:
                return "closing";
            case Kind::keyframe:
                return "keyframe";
        }
        return "?";
    }

    const HostClock::time_point origin{1000s};
    RepeatScheduler scheduler;
    std::uint32_t number = 0;
    std::optional<double> repeatQuantizer = sharp, closingQuantizer;
};

using Seen = std::vector<std::string>;

TEST_F(RepeatSchedulerTest, aSharpLastFrameIsClosedTwiceAndThenNothingFollows) {
    EXPECT_FALSE(scheduler.nextDue(origin)) << "there is nothing to repeat yet";
    change(0ms);
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@40", "closing@160"}));
    EXPECT_FALSE(scheduler.nextDue(origin + 1h));
}

TEST_F(RepeatSchedulerTest, movementRestartsTheClosingAndIsNotInterruptedByIt) {
    for (int frame = 0; frame < 10; ++frame) {
        change(frame * 16ms);
        EXPECT_FALSE(scheduler.due(origin + frame * 16ms + 15ms));
    }
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@184", "closing@304"}));
}

TEST_F(RepeatSchedulerTest, aCoarsePictureIsSharpenedUntilItIsGoodAndThenClosed) {
    change(0ms, coarse);
    repeatQuantizer = sharp;  // the first sharpening is enough
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@40", "sharpening@60", "closing@100", "closing@220"}));
}

TEST_F(RepeatSchedulerTest, sharpeningGivesUpAfterTenFramesWithinItsTime) {
    change(0ms, coarse);
    repeatQuantizer = coarse;
    const Seen seen = repeatsUntil(1h);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const auto& s) { return s[0] == 's'; }), 10);
    EXPECT_EQ(seen[10], "sharpening@276");
    EXPECT_EQ((Seen{seen.end() - 2, seen.end()}), (Seen{"closing@316", "closing@436"}));
    EXPECT_EQ(seen.size(), 13u);
}

TEST_F(RepeatSchedulerTest, aClosingRepeatThatMadeThePictureSharpSavesTheSharpening) {
    change(0ms, coarse);
    closingQuantizer = sharp;
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@40", "closing@160"}));
}

TEST_F(RepeatSchedulerTest, aBlurredPictureOnANarrowLinkIsSharpenedSlowlyForSomeSeconds) {
    change(0ms, blurred);
    repeatQuantizer = blurred;
    const Seen seen = repeatsUntil(1h);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const auto& s) { return s[0] == 's'; }), 60);
    EXPECT_EQ(seen[11], "sharpening@376");
    EXPECT_EQ(seen[12], "sharpening@476") << "no closing repeat while another frame is to come";
    EXPECT_EQ((Seen{seen.end() - 2, seen.end()}), (Seen{"closing@5316", "closing@5436"}));
}

TEST_F(RepeatSchedulerTest, sharpeningThatWasHeldUpPastItsTimeIsForgotten) {
    change(0ms, coarse);
    EXPECT_EQ(scheduler.due(origin + 300ms), Kind::sharpening);
    EXPECT_EQ(scheduler.due(origin + 301ms), Kind::closing);
}

TEST_F(RepeatSchedulerTest, anEncoderThatTellsNoQualityIsNotSharpened) {
    scheduler.sent({.number = 1}, origin);
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@40", "closing@160"}));
}

TEST_F(RepeatSchedulerTest, aKeyframeRequestOnAStillScreenGivesExactlyOneAndItIsSharpenedAgain) {
    change(0ms);
    repeatsUntil(1h);
    const auto asked = origin + 2h;
    scheduler.wantKeyframe(asked);
    scheduler.wantKeyframe(asked + 5ms);
    EXPECT_FALSE(scheduler.due(asked + 16ms)) << "a change may bring it";
    EXPECT_EQ(scheduler.due(asked + 17ms), Kind::keyframe);
    scheduler.sent({.number = 9, .repeats = Kind::keyframe, .isKeyframe = true, .meanQuantizer = coarse},
                   asked + 17ms);
    EXPECT_EQ(scheduler.due(asked + 17ms + 60ms), Kind::sharpening);
}

TEST_F(RepeatSchedulerTest, aChangeThatComesFirstBringsTheKeyframe) {
    change(0ms);
    scheduler.wantKeyframe(origin + 1ms);
    change(10ms, sharp, true);
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@50", "closing@170"}));
}

TEST_F(RepeatSchedulerTest, aLostKeyframeThatNobodyMendsIsReplacedAtMostEveryHalfSecond) {
    change(0ms, sharp, true);
    scheduler.lost(number, origin + 100ms);
    EXPECT_EQ(repeatsUntil(400ms), (Seen{"closing@40", "closing@160", "keyframe@350", "closing@390"}));
    scheduler.lost(3, origin + 400ms);  // a closing repeat: no keyframe
    const std::uint32_t keyframe = 4;
    scheduler.lost(keyframe, origin + 400ms);
    EXPECT_EQ(repeatsUntil(10s), (Seen{"closing@510", "keyframe@850", "closing@890", "closing@1010"}))
        << "650 would be too soon after 350";
}

TEST_F(RepeatSchedulerTest, aStillScreenIsClosedAgainWhenAnOutageTookTheLastRepeat) {
    change(0ms);
    EXPECT_EQ(repeatsUntil(1s), (Seen{"closing@40", "closing@160"}));
    scheduler.lost(1, origin + 1s);  // the repeats may have told of it
    EXPECT_EQ(repeatsUntil(2s), Seen{});
    scheduler.lost(number, origin + 2s);
    EXPECT_EQ(repeatsUntil(3s), Seen{"closing@2160"});
    scheduler.lost(number, origin + 3s);
    EXPECT_EQ(repeatsUntil(1h), Seen{"closing@3160"});
}

TEST_F(RepeatSchedulerTest, aMendedKeyframeIsNotReplaced) {
    change(0ms, sharp, true);
    scheduler.lost(number, origin + 10ms);
    scheduler.mended(number);
    EXPECT_EQ(repeatsUntil(1h), (Seen{"closing@40", "closing@160"}));
}

TEST_F(RepeatSchedulerTest, withoutAPictureNothingIsDueButTheRequestStands) {
    change(0ms);
    scheduler.wantKeyframe(origin);
    scheduler.forgetPicture();
    EXPECT_FALSE(scheduler.nextDue(origin + 1s));
    change(2s);
    EXPECT_EQ(scheduler.due(origin + 2s), Kind::keyframe) << "the change was no keyframe";
}

TEST_F(RepeatSchedulerTest, aFailedRepeatIsNotTriedAgainAtOnce) {
    change(0ms, coarse);
    scheduler.wantKeyframe(origin);
    auto now = origin;
    for (int failures = 0; failures < 20; ++failures) {
        const auto next = scheduler.nextDue(now);
        ASSERT_TRUE(next);
        now = std::max(now, *next);
        const auto kind = scheduler.due(now);
        ASSERT_TRUE(kind);
        scheduler.failed(*kind, now);
    }
    EXPECT_GT(now, origin + 1s);
}

}  // namespace
}  // namespace velmora
