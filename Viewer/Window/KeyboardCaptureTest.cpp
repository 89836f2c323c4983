#include "Viewer/Window/KeyboardCapture.h"

#include <gtest/gtest.h>

#include "Platform/EventPoster.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using namespace EventFlags;

struct KeyboardCaptureTest : testing::Test {
    VirtualTime time;
    VirtualQueue main{time, "main"};
    bool allowed = true, asked = false, held = false;
    int tries = 0;
    KeyboardCapture capture{[this](bool take) {
                                if (take) ++tries;
                                asked = take;
                                held = take && allowed;
                                return held;
                            },
                            main};
};

TEST_F(KeyboardCaptureTest, keysAreTakenWhileTheyAreWanted) {
    capture.setActive(true);
    EXPECT_TRUE(held);
    capture.setActive(false);
    EXPECT_FALSE(held);
    capture.setActive(true);
    capture.stop();
    EXPECT_FALSE(held);
    capture.setActive(true);
    EXPECT_FALSE(held);
}

TEST_F(KeyboardCaptureTest, aRefusalIsTriedAgainUntilNobodyWantsThem) {
    allowed = false;
    capture.setActive(true);
    time.advanceBy(250ms);
    EXPECT_EQ(tries, 3);
    allowed = true;
    time.advanceBy(100ms);
    EXPECT_TRUE(held);
    capture.setActive(false);
    allowed = false;
    capture.setActive(true);
    capture.setActive(false);
    time.advanceBy(10s);
    EXPECT_EQ(tries, 5);
    EXPECT_FALSE(asked) << "some desktops grant it later";
}

TEST_F(KeyboardCaptureTest, whoeverWantsOutGetsOut) {
    EXPECT_TRUE(KeyboardCapture::isWayOut(0x35, shift | control | option | capsLock));
    EXPECT_FALSE(KeyboardCapture::isWayOut(0x35, shift | control));
    EXPECT_FALSE(KeyboardCapture::isWayOut(0x24, shift | control | option));
    capture.setActive(true);
    capture.letGo();
    EXPECT_FALSE(held);
    capture.setActive(true);  // nothing has ended yet
    time.advanceBy(10s);
    EXPECT_FALSE(held);
    capture.resume();
    EXPECT_TRUE(held);
    capture.letGo();
    capture.setActive(false);
    capture.setActive(true);
    EXPECT_TRUE(held);
}

}  // namespace
}  // namespace velmora
