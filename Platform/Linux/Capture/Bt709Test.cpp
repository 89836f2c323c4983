#include "Platform/Linux/Capture/Bt709.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

namespace velmora {
namespace {

struct Pixels {
    explicit Pixels(PixelSize s)
        : size(s), bytes(static_cast<std::size_t>(s.width) * static_cast<std::size_t>(s.height) * 4) {}
    int stride() const { return size.width * 4; }
    void fill(int r, int g, int b) {
        for (std::size_t i = 0; i < bytes.size(); i += 4) {
            bytes[i] = static_cast<std::uint8_t>(b);
            bytes[i + 1] = static_cast<std::uint8_t>(g);
            bytes[i + 2] = static_cast<std::uint8_t>(r);
            bytes[i + 3] = 0xa5;  // what a server leaves there must not matter
        }
    }
    PixelSize size;
    std::vector<std::uint8_t> bytes;
};

PixelRect whole(PixelSize size) {
    return {0, 0, size.width, size.height};
}

struct Colour {
    int r, g, b, y, u, v;
};

TEST(Bt709Test, knownColoursBecomeTheirStudioValues) {
    // ITU-R BT.709 in limited range, worked out by hand; rounding may differ by one.
    const Colour colours[] = {{0, 0, 0, 16, 128, 128},        {255, 255, 255, 235, 128, 128},
                              {255, 0, 0, 63, 102, 240},      {0, 255, 0, 173, 42, 26},
                              {0, 0, 255, 32, 240, 118},      {255, 255, 0, 219, 16, 138},
                              {128, 128, 128, 126, 128, 128}, {0, 255, 255, 188, 154, 16}};
    for (const auto kernel : {Bt709::Kernel::plain, Bt709::Kernel::avx2}) {
        if (!Bt709::isSupported(kernel)) continue;
        for (const Colour& c : colours) {
            Pixels pixels({64, 2});
            pixels.fill(c.r, c.g, c.b);
            PictureBuffer picture(pixels.size);
            ASSERT_TRUE(
                Bt709::convert(pixels.bytes.data(), pixels.stride(), picture, whole(pixels.size), kernel));
            for (const int x : {0, 31, 63}) {
                EXPECT_NEAR(picture.y[x], c.y, 1) << c.r << ' ' << c.g << ' ' << c.b;
                EXPECT_NEAR(picture.u[x / 2], c.u, 1) << c.r << ' ' << c.g << ' ' << c.b;
                EXPECT_NEAR(picture.v[x / 2], c.v, 1) << c.r << ' ' << c.g << ' ' << c.b;
            }
        }
    }
}

TEST(Bt709Test, everyColourIsWithinAStepOfTheExactOneAndGreysStayGrey) {
    double worst = 0;
    for (int r = 0; r <= 255; r += 15) {
        for (int g = 0; g <= 255; g += 15) {
            for (int b = 0; b <= 255; b += 15) {
                Pixels pixels({2, 2});
                pixels.fill(r, g, b);
                PictureBuffer picture(pixels.size);
                ASSERT_TRUE(
                    Bt709::convert(pixels.bytes.data(), pixels.stride(), picture, whole(pixels.size)));
                const double luma = 0.2126 * r + 0.7152 * g + 0.0722 * b;
                worst = std::max(worst, std::abs(picture.y[0] - (16 + luma * 219 / 255)));
                worst = std::max(worst, std::abs(picture.u[0] - (128 + (b - luma) / 1.8556 * 224 / 255)));
                worst = std::max(worst, std::abs(picture.v[0] - (128 + (r - luma) / 1.5748 * 224 / 255)));
                if (r == g && g == b) {
                    EXPECT_EQ(picture.u[0], 128);
                    EXPECT_EQ(picture.v[0], 128);
                }
            }
        }
    }
    EXPECT_LT(worst, 1.5);
}

TEST(Bt709Test, bothKernelsGiveTheSameBytes) {
    if (!Bt709::isSupported(Bt709::Kernel::avx2)) GTEST_SKIP() << "this processor has no AVX2";
    std::mt19937 random(709);
    for (int round = 0; round < 400; ++round) {
        const auto upTo = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
        Pixels pixels({2 + 2 * upTo(90), 2 + 2 * upTo(6)});
        // Half of the rounds are made of the extremes, where a sum of 16 bits would overflow.
        for (auto& byte : pixels.bytes) {
            byte = static_cast<std::uint8_t>(round % 2 == 0 ? random() : (random() % 2) * 255);
        }
        PixelRect rect{2 * upTo(pixels.size.width / 2), 2 * upTo(pixels.size.height / 2), 0, 0};
        rect.width = 2 + 2 * upTo((pixels.size.width - rect.x) / 2);
        rect.height = 2 + 2 * upTo((pixels.size.height - rect.y) / 2);
        PictureBuffer plain(pixels.size), avx2(pixels.size);
        ASSERT_TRUE(Bt709::convert(pixels.bytes.data(), pixels.stride(), plain, rect, Bt709::Kernel::plain));
        ASSERT_TRUE(Bt709::convert(pixels.bytes.data(), pixels.stride(), avx2, rect, Bt709::Kernel::avx2));
        // Whole planes, paddings too: nothing outside the rectangle may have been touched by either.
        const auto planes =
            static_cast<std::size_t>(plain.v - plain.y + plain.strideUV * plain.size.height / 2);
        ASSERT_EQ(std::memcmp(plain.y, avx2.y, planes), 0) << "round " << round;
    }
}

TEST(Bt709Test, onlyTheRectangleIsWrittenAndAnUnevenOneIsRefused) {
    Pixels pixels({64, 8});
    pixels.fill(255, 255, 255);
    PictureBuffer picture(pixels.size);
    ASSERT_TRUE(Bt709::convert(pixels.bytes.data(), pixels.stride(), picture, {2, 2, 40, 4}));
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 64; ++x) {
            const bool inside = x >= 2 && x < 42 && y >= 2 && y < 6;
            ASSERT_EQ(picture.y[y * picture.strideY + x], inside ? 235 : 16) << x << ',' << y;
        }
    }
    PictureBuffer untouched(pixels.size);
    for (const PixelRect& bad :
         {PixelRect{1, 0, 2, 2}, PixelRect{0, 1, 2, 2}, PixelRect{0, 0, 3, 2}, PixelRect{0, 0, 2, 3},
          PixelRect{-2, 0, 4, 2}, PixelRect{0, 0, 66, 2}, PixelRect{0, 6, 2, 4}, PixelRect{0, 0, 0, 2}}) {
        EXPECT_FALSE(Bt709::convert(pixels.bytes.data(), pixels.stride(), untouched, bad));
    }
    EXPECT_EQ(untouched.y[0], 16);
}

}  // namespace
}  // namespace velmora
