#include "App/PanelPlacement.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

constexpr QSize panel{288, 400};
const QRect screen(0, 0, 1600, 1000), belowTopBar(0, 24, 1600, 976), aboveBottomBar(0, 0, 1600, 970);

TEST(PanelPlacementTest, hangsCentredBelowAnItemInATopBar) {
    EXPECT_EQ(panelFrame({900, 0, 24, 24}, panel, belowTopBar), QRect(QPoint(768, 30), panel));
}

TEST(PanelPlacementTest, staysEightPointsFromTheEdges) {
    EXPECT_EQ(panelFrame({1590, 0, 10, 24}, panel, belowTopBar).x(), 1600 - 288 - 8);
    EXPECT_EQ(panelFrame({0, 0, 24, 24}, panel, belowTopBar).x(), 8);
    // A bar at the left edge holds the item outside of what is visible.
    EXPECT_EQ(panelFrame({0, 500, 40, 40}, panel, {40, 0, 1560, 1000}).x(), 48);
    // Narrower than panel and gaps: the right edge counts.
    EXPECT_EQ(panelFrame({0, 0, 24, 24}, panel, {0, 24, 290, 500}).x(), 290 - 288 - 8);
}

TEST(PanelPlacementTest, standsAboveAnItemInABottomBarAndNeverReachesIntoIt) {
    EXPECT_EQ(panelFrame({1500, 976, 24, 24}, panel, aboveBottomBar), QRect(QPoint(1304, 970 - 400), panel));
    EXPECT_EQ(panelFrame({1500, 960, 24, 24}, panel, screen).y(), 960 - 6 - 400);
}

TEST(PanelPlacementTest, worksOnAScreenThatIsNotTheFirst) {
    const QRect second(1600, 200, 1280, 800);
    const QRect frame = panelFrame({2860, 200, 20, 20}, panel, second);
    EXPECT_EQ(frame.x(), 1600 + 1280 - 288 - 8);
    EXPECT_EQ(frame.y(), 226);
}

TEST(PanelPlacementTest, isNeverTallerThanTheRoomOnItsSide) {
    for (const QRect& anchor : {QRect(900, 0, 24, 24), QRect(900, 976, 24, 24), QRect(700, 480, 1, 1)}) {
        const int tallest = tallestPanel(anchor, screen);
        const QRect frame = panelFrame(anchor, {288, tallest}, screen);
        EXPECT_GE(frame.y(), 8);
        EXPECT_LE(frame.y() + frame.height(), 1000 - 8);
        EXPECT_GT(tallest, 450);
    }
    EXPECT_EQ(tallestPanel({0, 0, 24, 24}, {}), 0);
}

TEST(PanelPlacementTest, atThePointerItMayLieOverItButStaysOnTheScreen) {
    for (const int y : {0, 300, 499, 501, 999}) {
        const QRect frame = panelFrame({700, y, 1, 1}, {288, tallestPanel(screen)}, screen);
        EXPECT_TRUE(screen.contains(frame)) << y << ": " << frame.y();
        EXPECT_EQ(frame.height(), 1000 - 16);
    }
}

}  // namespace
}  // namespace velmora
