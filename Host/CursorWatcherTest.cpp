#include "Host/CursorWatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Testing/FakeCursorSource.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using testing::ElementsAre;

const CursorShape arrow{.width = 24, .height = 24, .hotX = 4, .hotY = 4, .png = {1, 2, 3}};

class CursorWatcherTest : public testing::Test {
protected:
    void start() {
        watcher.start([this] { return scale; }, [this](const CursorShape& shape) { told.push_back(shape); });
        time.advanceBy(CursorWatcher::firstLook);
    }
    void show(const CursorShape& shape) {
        source.show(shape);
        time.settle();
    }
    VirtualTime time;
    VirtualQueue main{time, "main"};
    FakeCursorSource source{main};
    CursorWatcher watcher{source, main};
    double scale = 1;
    std::vector<CursorShape> told;
};

TEST_F(CursorWatcherTest, eachShapeIsToldOnceAndAgainAfterAnother) {
    show(arrow);
    start();
    show(arrow);
    EXPECT_THAT(told, ElementsAre(arrow));
    CursorShape otherSpot = arrow;
    otherSpot.hotX = 5, otherSpot.hotY = 5;
    show(otherSpot);
    show(otherSpot);
    show(arrow);
    EXPECT_THAT(told, ElementsAre(arrow, otherSpot, arrow));
}

TEST_F(CursorWatcherTest, aNewStartTellsTheShapeAgainAndAStopEndsIt) {
    show(arrow);
    start();
    start();
    EXPECT_THAT(told, ElementsAre(arrow, arrow));
    CursorShape wide = arrow;
    wide.width = 48;
    source.show(wide);  // on its way when the watcher is stopped
    watcher.stop();
    time.settle();
    EXPECT_EQ(told.size(), 2u);
    EXPECT_EQ(source.watches(), 0);
}

TEST_F(CursorWatcherTest, theScaleCountsInSizeAndHotSpot) {
    scale = 0.5;
    show(arrow);
    start();
    EXPECT_THAT(told, ElementsAre(CursorShape{12, 12, 2, 2, arrow.png}));
    scale = 1;
    show(arrow);
    EXPECT_EQ(told.back(), arrow);
}

}  // namespace
}  // namespace velmora
