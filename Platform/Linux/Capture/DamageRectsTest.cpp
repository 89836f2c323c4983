#include "Platform/Linux/Capture/DamageRects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace velmora {
namespace {

using testing::ElementsAre;

TEST(DamageRectsTest, rectanglesBecomeEvenAndStayWithinThePicture) {
    EXPECT_EQ(evenlyAround({3, 5, 1, 1}, {100, 100}), (PixelRect{2, 4, 2, 2}));
    EXPECT_EQ(evenlyAround({-7, -3, 10, 4}, {100, 100}), (PixelRect{0, 0, 4, 2}));
    EXPECT_EQ(evenlyAround({97, 99, 50, 50}, {100, 100}), (PixelRect{96, 98, 4, 2}));
    EXPECT_TRUE(evenlyAround({100, 0, 5, 5}, {100, 100}).isEmpty());
    EXPECT_TRUE(evenlyAround({-9, 0, 5, 5}, {100, 100}).isEmpty());
}

TEST(DamageRectsTest, nearRectanglesJoinAndFarOnesDoNot) {
    // 15 rows apart: one band, two columns of the same rows. 16 rows apart: two bands.
    EXPECT_THAT(tidyDamage({{200, 25, 10, 10}, {0, 0, 10, 10}}, {400, 400}),
                ElementsAre(PixelRect{0, 0, 10, 36}, PixelRect{200, 0, 10, 36}));
    EXPECT_THAT(tidyDamage({{200, 26, 10, 10}, {0, 0, 10, 10}}, {400, 400}),
                ElementsAre(PixelRect{0, 0, 10, 10}, PixelRect{200, 26, 10, 10}));
    EXPECT_THAT(tidyDamage({{24, 0, 10, 10}, {0, 0, 10, 10}}, {400, 400}),
                ElementsAre(PixelRect{0, 0, 34, 10}));
}

TEST(DamageRectsTest, whateverComesInIsCoveredByWhatGoesOutInOrder) {
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        const auto between = [&](int low, int high) {
            return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
        };
        const PixelSize size{2 * between(1, 80), 2 * between(1, 80)};
        std::vector<PixelRect> rects;
        for (int i = between(0, 12); i > 0; --i) {
            rects.push_back({between(-20, 170), between(-20, 170), between(0, 30), between(0, 30)});
        }
        const auto tidy = tidyDamage(rects, size);
        std::vector<int> covered(static_cast<std::size_t>(size.width * size.height));
        for (std::size_t i = 0; i < tidy.size(); ++i) {
            const PixelRect& r = tidy[i];
            ASSERT_EQ((r.x | r.y | r.width | r.height) & 1, 0);
            if (i > 0) {
                ASSERT_GE(std::pair(r.y, r.x), std::pair(tidy[i - 1].y, tidy[i - 1].x));
            }
            for (int y = r.y; y < r.y + r.height; ++y) {
                for (int x = r.x; x < r.x + r.width; ++x) {
                    ASSERT_TRUE(x >= 0 && x < size.width && y >= 0 && y < size.height);
                    ASSERT_EQ(++covered[static_cast<std::size_t>(y * size.width + x)], 1) << "overlap";
                }
            }
        }
        for (const PixelRect& r : rects) {
            for (int y = std::max(r.y, 0); y < std::min(r.y + r.height, size.height); ++y) {
                for (int x = std::max(r.x, 0); x < std::min(r.x + r.width, size.width); ++x) {
                    ASSERT_EQ(covered[static_cast<std::size_t>(y * size.width + x)], 1)
                        << "lost " << x << ',' << y;
                }
            }
        }
    }
}

}  // namespace
}  // namespace velmora
