#include "Platform/Linux/System/TurboJpegEncoder.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <memory>

namespace velmora {
namespace {

struct Decoded {
    PixelSize size;
    Bytes rgb;
    /// Red, green and blue of a pixel, each 0 or 1.
    std::string colourAt(int x, int y) const {
        const auto* pixel = rgb.data() + (static_cast<std::ptrdiff_t>(y) * size.width + x) * 3;
        std::string colour;
        for (int i = 0; i < 3; ++i) colour += pixel[i] > 230 ? '1' : pixel[i] < 25 ? '0' : '?';
        return colour;
    }
};

Decoded decoded(const Bytes& jpeg) {
    Decoded result;
    const std::unique_ptr<void, int (*)(tjhandle)> reader(tjInitDecompress(), tjDestroy);
    int samples = 0, space = 0;
    EXPECT_EQ(tjDecompressHeader3(reader.get(), jpeg.data(), jpeg.size(), &result.size.width,
                                  &result.size.height, &samples, &space),
              0);
    result.rgb.resize(static_cast<std::size_t>(result.size.width) *
                      static_cast<std::size_t>(result.size.height) * 3);
    EXPECT_EQ(tjDecompress2(reader.get(), jpeg.data(), jpeg.size(), result.rgb.data(), result.size.width, 0,
                            result.size.height, TJPF_RGB, 0),
              0);
    return result;
}

/// Red, green, blue and white quarters, from the top left.
SharedPicture quarters(PixelSize size) {
    auto buffer = std::make_shared<PictureBuffer>(size);
    const std::uint8_t luma[] = {63, 173, 32, 235}, cb[] = {102, 42, 240, 128}, cr[] = {240, 26, 118, 128};
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const int quarter = (x >= size.width / 2) + 2 * (y >= size.height / 2);
            buffer->y[y * buffer->strideY + x] = luma[quarter];
            buffer->u[y / 2 * buffer->strideUV + x / 2] = cb[quarter];
            buffer->v[y / 2 * buffer->strideUV + x / 2] = cr[quarter];
        }
    }
    return PictureBuffer::view(buffer);
}

TEST(TurboJpegEncoderTest, partsAndSizesAreWhatWasAskedFor) {
    TurboJpegEncoder encoder;
    const auto picture = quarters({200, 120});
    const auto whole = decoded(*encoder.encode(*picture, {0, 0, 200, 120}, {200, 120}));
    EXPECT_EQ(whole.size, (PixelSize{200, 120}));
    EXPECT_EQ(whole.colourAt(10, 10), "100");
    EXPECT_EQ(whole.colourAt(190, 10), "010");
    EXPECT_EQ(whole.colourAt(10, 110), "001");
    EXPECT_EQ(whole.colourAt(190, 110), "111");

    // An odd corner, shrunk: what was above the middle of the picture is above that of the part.
    const auto part = decoded(*encoder.encode(*picture, {51, 31, 98, 58}, {49, 29}));
    EXPECT_EQ(part.size, (PixelSize{49, 29}));
    EXPECT_EQ(part.colourAt(5, 5), "100");
    EXPECT_EQ(part.colourAt(44, 5), "010");
    EXPECT_EQ(part.colourAt(5, 24), "001");
    EXPECT_EQ(part.colourAt(44, 24), "111");
}

TEST(TurboJpegEncoderTest, whatIsTooLargeForAJpegIsRefused) {
    TurboJpegEncoder encoder;
    const auto picture = quarters({20, 20});
    EXPECT_FALSE(encoder.encode(*picture, {0, 0, 20, 20}, {70000, 1}));
}

}  // namespace
}  // namespace velmora
