#include "Viewer/Window/PictureChange.h"

#include <gtest/gtest.h>

#include <memory>

namespace velmora {
namespace {

enum class Plane { y, u, v };

TEST(PictureChangeTest, theRectangleHoldsEveryDifferenceAndLittleMore) {
    constexpr PixelSize size{130, 71};
    struct Dot {
        Plane plane;
        int x, y;
    };
    struct Case {
        std::vector<Dot> dots;
        PixelRect least;  // even, and at most a run of samples wider than this
    };
    for (const Case& c :
         {Case{{}, {}}, Case{{{Plane::y, 0, 0}}, {0, 0, 2, 2}}, Case{{{Plane::y, 129, 70}}, {128, 70, 2, 1}},
          Case{{{Plane::u, 64, 35}}, {128, 70, 2, 1}}, Case{{{Plane::v, 10, 3}}, {20, 6, 2, 2}},
          Case{{{Plane::y, 51, 9}, {Plane::y, 33, 30}, {Plane::u, 20, 2}}, {32, 4, 20, 28}}}) {
        const auto before = std::make_shared<PictureBuffer>(size),
                   after = std::make_shared<PictureBuffer>(size);
        for (const Dot& dot : c.dots) {
            const auto at = [&](std::uint8_t* plane, int stride) { plane[dot.y * stride + dot.x] = 77; };
            if (dot.plane == Plane::y) at(after->y, after->strideY);
            if (dot.plane == Plane::u) at(after->u, after->strideUV);
            if (dot.plane == Plane::v) at(after->v, after->strideUV);
        }
        const PixelRect changed = changedPart(*PictureBuffer::view(before), *PictureBuffer::view(after));
        if (c.dots.empty()) {
            EXPECT_TRUE(changed.isEmpty());
            continue;
        }
        EXPECT_EQ(changed.x, c.least.x);
        EXPECT_EQ(changed.y, c.least.y);
        EXPECT_EQ(changed.height, c.least.height);
        EXPECT_GE(changed.width, c.least.width);
        EXPECT_LE(changed.x + changed.width, std::min(size.width, c.least.x + c.least.width + 34));
    }
    const auto smaller = std::make_shared<PictureBuffer>(PixelSize{128, 70});
    const auto full = std::make_shared<PictureBuffer>(size);
    EXPECT_EQ(changedPart(*PictureBuffer::view(smaller), *PictureBuffer::view(full)),
              (PixelRect{0, 0, 130, 71}));
}

}  // namespace
}  // namespace velmora
