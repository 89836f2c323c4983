#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "Platform/Linux/Painting/YuvPicturePainter.h"
#include "Testing/FakePicturePainter.h"

namespace velmora {
namespace {

/// A window of 40 by 30 pixels, grey before anything is drawn.
template <class Painter>
class PicturePainterContract : public testing::Test {
protected:
    static constexpr std::uint32_t grey = 0xFF808080;

    std::uint32_t at(int x, int y) const { return window[static_cast<std::size_t>(y * 40 + x)]; }
    static bool isNear(std::uint32_t a, std::uint32_t b) {
        for (const int shift : {0, 8, 16, 24}) {
            const auto part = [shift](std::uint32_t pixel) { return static_cast<int>(pixel >> shift & 255); };
            if (std::abs(part(a) - part(b)) > 3) return false;
        }
        return true;
    }
    /// 8 by 6 pixels, the left half white, the right half black.
    static SharedPicture halves() {
        const auto buffer = std::make_shared<PictureBuffer>(PixelSize{8, 6});
        for (int y = 0; y < 6; ++y) std::fill_n(buffer->y + y * buffer->strideY, 4, std::uint8_t{235});
        return PictureBuffer::view(buffer);
    }

    Painter painter;
    std::vector<std::uint32_t> window = std::vector<std::uint32_t>(40 * 30, grey);
    PixelMemory memory{reinterpret_cast<std::uint8_t*>(window.data()), 160, {40, 30}};
};

using Painters = testing::Types<FakePicturePainter, YuvPicturePainter>;
TYPED_TEST_SUITE(PicturePainterContract, Painters);

TYPED_TEST(PicturePainterContract, onlyWhatIsInPlaceAndClipAndWindowIsTouched) {
    struct Case {
        PixelRect place, clip;
    };
    constexpr PixelRect all{0, 0, 40, 30};
    for (const Case& c :
         {Case{{3, 5, 8, 6}, all}, Case{{3, 5, 8, 6}, {6, 7, 2, 1}}, Case{{-3, -5, 8, 6}, all},
          Case{{35, 27, 8, 6}, all}, Case{{4, 4, 24, 18}, {5, 5, 7, 3}}, Case{{-60, -60, 200, 150}, all},
          Case{{1, 1, 4, 3}, all}, Case{{1, 1, 7, 5}, {2, 2, 3, 2}}, Case{{50, 0, 8, 6}, all},
          Case{{0, 0, 0, 6}, all}}) {
        std::fill(this->window.begin(), this->window.end(), this->grey);
        this->painter.paint(this->halves(), c.place, c.clip, this->memory);
        const PixelRect touched = intersectionOf(c.place, c.clip);
        for (int y = 0; y < 30; ++y) {
            for (int x = 0; x < 40; ++x) {
                const bool isInside = !intersectionOf(touched, {x, y, 1, 1}).isEmpty();
                // The edge between the halves may be any grey; away from it nothing stays as it was.
                const bool isEdge = std::abs((x - c.place.x + 0.5) * 8 / std::max(c.place.width, 1) - 4) < 1;
                if (isInside && isEdge) continue;
                ASSERT_EQ(this->at(x, y) == this->grey, !isInside) << x << "," << y << " of " << c.place.x;
            }
        }
    }
}

TYPED_TEST(PicturePainterContract, aPixelStaysWhereItBelongsAtEveryScale) {
    for (const int scale : {1, 2, 5}) {
        this->painter.paint(this->halves(), {-2 * scale, 0, 8 * scale, 6 * scale}, {0, 0, 40, 30},
                            this->memory);
        EXPECT_TRUE(this->isNear(this->at(0, 0), 0xFFFFFFFF)) << scale;
        EXPECT_TRUE(this->isNear(this->at(5 * scale - 1, 0), 0xFF000000)) << scale;
        // The edge lies between the pixels on either side of it, which mirror each other's grey.
        const std::uint32_t left = this->at(2 * scale - 1, 2) & 255, right = this->at(2 * scale, 2) & 255;
        EXPECT_NEAR(left + right, 255, 3) << scale;
        EXPECT_GT(left, right) << scale;
    }
}

TYPED_TEST(PicturePainterContract, anotherPictureInTheSamePlaceReplacesTheFirst) {
    const auto dark = std::make_shared<PictureBuffer>(PixelSize{8, 6});
    for (const PixelRect& place : {PixelRect{0, 0, 8, 6}, PixelRect{1, 1, 16, 12}, PixelRect{0, 0, 5, 4}}) {
        this->painter.paint(this->halves(), place, place, this->memory);
        EXPECT_TRUE(this->isNear(this->at(1, 1), 0xFFFFFFFF));
        this->painter.paint(PictureBuffer::view(dark), place, place, this->memory);
        EXPECT_TRUE(this->isNear(this->at(1, 1), 0xFF000000));
    }
}

}  // namespace
}  // namespace velmora
