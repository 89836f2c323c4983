#include "Platform/Linux/Capture/PictureScaler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace velmora {
namespace {

struct Scaling {
    PixelSize source, picture;
};

class PictureScalerTest : public testing::TestWithParam<Scaling> {};

TEST_P(PictureScalerTest, renewingWhatAChangeReachesGivesTheSameAsScalingTheWhole) {
    const auto [source, picture] = GetParam();
    std::mt19937 random(7);
    const auto between = [&](int low, int high) {
        return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
    };
    const int stride = source.width * 4;
    std::vector<std::uint8_t> screen(static_cast<std::size_t>(stride) *
                                     static_cast<std::size_t>(source.height));
    for (auto& byte : screen) byte = static_cast<std::uint8_t>(random());
    PictureScaler kept(source, picture);
    kept.scale(screen.data(), stride, 0, picture.height);
    for (int round = 0; round < 60; ++round) {
        PixelRect change{between(0, source.width - 1), between(0, source.height - 1), 0, 0};
        change.width = between(1, std::min(source.width - change.x, 1 + source.width / 4));
        change.height = between(1, std::min(source.height - change.y, 1 + source.height / 4));
        for (int y = change.y; y < change.y + change.height; ++y) {
            for (int x = 4 * change.x; x < 4 * (change.x + change.width); ++x) {
                screen[static_cast<std::size_t>(y * stride + x)] = static_cast<std::uint8_t>(random());
            }
        }
        const PixelRect reached = kept.reachOf(change);
        ASSERT_FALSE(reached.isEmpty());
        const std::vector<std::uint8_t> before(kept.pixels(), kept.pixels() + kept.stride() * picture.height);
        kept.scale(screen.data(), stride, reached.y, reached.height);
        PictureScaler fresh(source, picture);
        fresh.scale(screen.data(), stride, 0, picture.height);
        for (int y = 0; y < picture.height; ++y) {
            for (int x = 0; x < picture.width * 4; ++x) {
                const int at = y * kept.stride() + x;
                ASSERT_EQ(kept.pixels()[at], fresh.pixels()[at])
                    << "round " << round << " at " << x / 4 << ',' << y << ", change " << change.x << ','
                    << change.y << ' ' << change.width << 'x' << change.height;
                const bool inReach = x / 4 >= reached.x && x / 4 < reached.x + reached.width;
                if (!inReach) {
                    ASSERT_EQ(kept.pixels()[at], before[static_cast<std::size_t>(at)]) << "reach too small";
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Ratios, PictureScalerTest,
                         testing::Values(Scaling{{640, 360}, {480, 270}}, Scaling{{512, 288}, {384, 216}},
                                         Scaling{{768, 432}, {384, 216}}, Scaling{{683, 385}, {382, 214}},
                                         Scaling{{900, 300}, {300, 100}}, Scaling{{320, 200}, {400, 250}}));

}  // namespace
}  // namespace velmora
