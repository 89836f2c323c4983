#include "Agent/ShotGeometry.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace ShotGeometry;

constexpr PixelSize retina{2880, 1800};

TEST(ShotGeometryTest, screenshotsShrinkButNeverGrow) {
    EXPECT_EQ(shotSizeOf(retina), (PixelSize{1568, 980}));
    EXPECT_EQ(shotSizeOf({1024, 768}), (PixelSize{1024, 768}));
    EXPECT_EQ(shotSizeOf({1000, 3136}), (PixelSize{500, 1568}));
    EXPECT_EQ(shotSizeOf({20000, 2}), (PixelSize{1568, 1}));
    EXPECT_EQ(shotSizeOf({}), (PixelSize{}));
}

TEST(ShotGeometryTest, theWholePictureIsMadeTheShotsSize) {
    EXPECT_EQ(cutOf(retina, retina, std::nullopt), (Cut{{0, 0, 2880, 1800}, {1568, 980}}));
    // A picture of the size before, after the stream has changed.
    EXPECT_EQ(cutOf({800, 600}, {1024, 768}, std::nullopt), (Cut{{0, 0, 800, 600}, {800, 600}}));
    EXPECT_EQ(cutOf({1024, 768}, {512, 384}, std::nullopt), (Cut{{0, 0, 1024, 768}, {512, 384}}));
    EXPECT_EQ(cutOf({64, 48}, {}, Region{1, 1, 1, 1}), (Cut{{0, 0, 64, 48}, {64, 48}}));
    EXPECT_EQ(cutOf({}, retina, std::nullopt), std::nullopt);
}

TEST(ShotGeometryTest, aRegionIsCutInTheStreamsOwnPixels) {
    EXPECT_EQ(cutOf(retina, retina, Region{784, 490, 98, 49}), (Cut{{1440, 900, 180, 90}, {180, 90}}));
    EXPECT_EQ(cutOf(retina, retina, Region{0, 931, 784, 49}), (Cut{{0, 1710, 1440, 90}, {1440, 90}}));
    // Larger than what may be sent: shrunk like a full one.
    EXPECT_EQ(cutOf(retina, retina, Region{0, 0, 1568, 490}), (Cut{{0, 0, 2880, 900}, {1568, 490}}));
    // Parts of pixels count as pixels.
    EXPECT_EQ(cutOf({100, 100}, {100, 100}, Region{9.5, 9.5, 1, 0.1}), (Cut{{9, 9, 2, 1}, {2, 1}}));
}

TEST(ShotGeometryTest, aRegionEndsWithThePicture) {
    const PixelSize size{100, 100};
    EXPECT_EQ(cutOf(size, size, Region{-5, 90, 10, 1e300}), (Cut{{0, 90, 5, 10}, {5, 10}}));
    for (const Region& outside : {Region{100, 0, 5, 5}, Region{0, -5, 5, 5},
                                  Region{1e300, 1e300, 1e300, 1e300}, Region{-1e308, 0, 1, 1}}) {
        EXPECT_EQ(cutOf(size, size, outside), std::nullopt) << outside.x << "," << outside.y;
    }
}

}  // namespace
}  // namespace velmora
