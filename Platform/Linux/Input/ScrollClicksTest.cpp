#include "Platform/Linux/Input/ScrollClicks.h"

#include <gtest/gtest.h>

#include <limits>

namespace velmora {
namespace {

constexpr int step = ScrollClicks::pixelsPerClick;

TEST(ScrollClicksTest, smallMovementsAddUpUntilTheDirectionTurns) {
    ScrollClicks clicks;
    int made = 0;
    for (int i = 0; i < 20; ++i) made += clicks.add(-8);  // 160 pixels
    EXPECT_EQ(made, -3);
    EXPECT_EQ(clicks.add(-(4 * step - 160) + 1), 0);
    EXPECT_EQ(clicks.add(0), 0);
    EXPECT_EQ(clicks.add(step - 1), 0);  // what had gathered downwards is forgotten
    EXPECT_EQ(clicks.add(1), 1);
    EXPECT_EQ(clicks.add(3 * step), 3);
}

TEST(ScrollClicksTest, oneEventMakesSoManyClicksAtMostAndLeavesNothingBehind) {
    for (const int pixels : {std::numeric_limits<int>::max(), std::numeric_limits<int>::min(), 1000 * step}) {
        ScrollClicks clicks;
        const int sign = pixels > 0 ? 1 : -1;
        EXPECT_EQ(clicks.add(sign * (step - 1)), 0);
        EXPECT_EQ(clicks.add(pixels), sign * ScrollClicks::mostClicks);
        EXPECT_EQ(clicks.add(sign), 0);
    }
}

}  // namespace
}  // namespace velmora
