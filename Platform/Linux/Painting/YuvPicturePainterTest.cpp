#include "Platform/Linux/Painting/YuvPicturePainter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "Testing/FakePicturePainter.h"
#include "Testing/ImageCompare.h"

namespace velmora {
namespace {

/// Fine detail of the sort that text has, in all three planes.
SharedPicture detailedPicture(PixelSize size) {
    const auto buffer = std::make_shared<PictureBuffer>(size);
    unsigned seed = 7;
    const auto next = [&seed] { return seed = seed * 1664525 + 1013904223; };
    for (std::uint8_t* sample = buffer->y; sample != buffer->u; ++sample)
        *sample = next() >> 30 == 0 ? std::uint8_t{30} : std::uint8_t{220};
    const auto chromaEnd = buffer->v + (buffer->v - buffer->u);
    for (std::uint8_t* sample = buffer->u; sample != chromaEnd; ++sample)
        *sample = static_cast<std::uint8_t>(100 + (next() >> 26));
    return PictureBuffer::view(buffer);
}

struct Shown {
    std::vector<std::uint32_t> pixels;
    std::vector<std::uint8_t> green;
    explicit Shown(PicturePainter& painter, const SharedPicture& picture, const PixelRect& place,
                   PixelSize window)
        : pixels(static_cast<std::size_t>(window.width) * static_cast<std::size_t>(window.height)) {
        painter.paint(picture, place, {0, 0, window.width, window.height},
                      {reinterpret_cast<std::uint8_t*>(pixels.data()), window.width * 4, window});
        for (const std::uint32_t pixel : pixels) green.push_back(static_cast<std::uint8_t>(pixel >> 8));
    }
};

TEST(YuvPicturePainterTest, aPictureLooksAsTheReferenceHasIt) {
    const PixelSize window{160, 120};
    const SharedPicture picture = detailedPicture({100, 76});
    for (const PixelRect& place :
         {PixelRect{0, 0, 100, 76}, PixelRect{-3, -5, 100, 76}, PixelRect{0, 0, 160, 120},
          PixelRect{-17, -21, 200, 152}, PixelRect{-300, -200, 500, 380}}) {
        YuvPicturePainter painter;
        FakePicturePainter reference;
        const Shown ours(painter, picture, place, window), wanted(reference, picture, place, window);
        const GrayView a{ours.green.data(), 160, 120, 160}, b{wanted.green.data(), 160, 120, 160};
        EXPECT_GT(ssimLuma(a, b), 0.99) << place.width;
        int worst = 0;
        for (std::size_t i = 0; i < ours.green.size(); ++i)
            worst = std::max(worst, std::abs(ours.green[i] - wanted.green[i]));
        EXPECT_LE(worst, 5) << place.width;
    }
}

TEST(YuvPicturePainterTest, aPictureMadeSmallerKeepsItsLight) {
    const SharedPicture picture = detailedPicture({400, 300});
    YuvPicturePainter painter;
    FakePicturePainter reference;
    const auto meanOf = [](const Shown& shown) {
        double sum = 0;
        for (const std::uint8_t value : shown.green) sum += value;
        return sum / static_cast<double>(shown.green.size());
    };
    const double full = meanOf(Shown(reference, picture, {0, 0, 400, 300}, {400, 300}));
    for (const PixelSize size : {PixelSize{320, 240}, PixelSize{120, 90}})
        EXPECT_NEAR(meanOf(Shown(painter, picture, {0, 0, size.width, size.height}, size)), full, 2)
            << size.width;
}

}  // namespace
}  // namespace velmora
