#include "Platform/Linux/Capture/CapturePacer.h"

#include <gtest/gtest.h>

#include <vector>

namespace velmora {
namespace {

using std::chrono::milliseconds;

class CapturePacerTest : public testing::Test {
protected:
    static constexpr HostClock::duration interval{16'000};
    CapturePacer::Time at(int ms) {
        return CapturePacer::Time(std::chrono::seconds(1000)) + milliseconds(ms);
    }
    CapturePacer::Capture capture(int askedAt, int beganAt) {
        EXPECT_TRUE(pacer.nextAsk().has_value() && *pacer.nextAsk() <= at(askedAt));
        pacer.ask();
        const auto taken = pacer.begin(at(beganAt));
        pacer.end();
        return taken;
    }
    CapturePacer pacer{interval};
};

TEST_F(CapturePacerTest, aStillScreenIsNeverAskedFor) {
    EXPECT_FALSE(pacer.nextAsk());
    pacer.change(at(0));
    capture(0, 0);
    EXPECT_FALSE(pacer.nextAsk());
}

TEST_F(CapturePacerTest, aChangeIsTakenAtOnceAfterAPause) {
    pacer.change(at(0));
    capture(0, 0);
    pacer.change(at(500));
    EXPECT_LE(*pacer.nextAsk(), at(500));
}

TEST_F(CapturePacerTest, aScreenThatNeverRestsGivesOnePictureEachIntervalAndOneInReserve) {
    std::vector<int> taken;
    for (int ms = 0; ms < 160; ++ms) {
        pacer.change(at(ms));
        if (*pacer.nextAsk() > at(ms)) continue;
        capture(ms, ms);
        taken.push_back(ms);
    }
    EXPECT_EQ(taken, (std::vector{0, 8, 16, 32, 48, 64, 80, 96, 112, 128, 144}));
}

TEST_F(CapturePacerTest, aLateCaptureDoesNotHoldBackThoseAfterIt) {
    // A source of our own rate, whose third picture is taken late by nearly an interval.
    for (const int ms : {0, 16}) {
        pacer.change(at(ms));
        capture(ms, ms);
    }
    pacer.change(at(32));
    capture(32, 46);
    pacer.change(at(48));
    EXPECT_EQ(pacer.nextAsk(), at(54));
    capture(54, 54);
    for (const int ms : {64, 80, 96}) {
        pacer.change(at(ms));
        EXPECT_LE(*pacer.nextAsk(), at(ms));
        capture(ms, ms);
    }
}

TEST_F(CapturePacerTest, nothingIsAskedWhileTheConsumerIsBusyAndNothingIsForgotten) {
    pacer.change(at(0));
    pacer.ask();
    EXPECT_FALSE(pacer.nextAsk());
    pacer.begin(at(0));
    pacer.change(at(10));
    EXPECT_FALSE(pacer.nextAsk());
    pacer.end();
    EXPECT_TRUE(pacer.nextAsk());
}

TEST_F(CapturePacerTest, whatWasPutOffStaysDueUntilResumed) {
    pacer.change(at(0));
    pacer.ask();
    pacer.putOff();
    pacer.change(at(5));
    EXPECT_FALSE(pacer.nextAsk());
    pacer.resume();
    EXPECT_EQ(capture(20, 20).changedAt, at(0));
}

TEST_F(CapturePacerTest, aResumeThatOvertakesTheAnswerIsNotLost) {
    pacer.change(at(0));
    pacer.ask();
    pacer.resume();  // the flow drained between the question and "not now"
    pacer.putOff();
    EXPECT_TRUE(pacer.nextAsk());
    pacer.ask();
    pacer.putOff();  // but it excuses one answer only, or the two would chase each other
    EXPECT_FALSE(pacer.nextAsk());
}

TEST_F(CapturePacerTest, aWantedWholeNeedsNoChangeAndAFailedOneComesBack) {
    pacer.wantWhole();
    EXPECT_TRUE(capture(0, 0).whole);
    EXPECT_FALSE(pacer.nextAsk());
    pacer.change(at(20));
    pacer.ask();
    EXPECT_FALSE(pacer.begin(at(20)).whole);
    pacer.retryAt(at(120));
    EXPECT_EQ(pacer.nextAsk(), at(120));
    EXPECT_TRUE(capture(120, 120).whole);
}

}  // namespace
}  // namespace velmora
