#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// BT.709 limited range to full range RGB, in 16-bit fractions: 255/219 for luma, and 255/224 times
/// 2(1 - Kr), 2(1 - Kb) and the parts of green for chroma. libyuv is quicker, but its tables hold no factor
/// above 2: pure blue would come out as 243.
struct Rgb709 {
    static constexpr int luma = 76309, redV = 117489, greenU = -13975, greenV = -34925, blueU = 138438;

    static std::uint8_t clamp(int value) {
        return static_cast<std::uint8_t>(std::clamp((value + 32768) >> 16, 0, 255));
    }

    /// The part as red, green, blue, row after row, with `bytesPerPixel` of 3, or 4 with a byte of 255 last.
    /// It must be on the picture.
    template <int bytesPerPixel>
    static Bytes rgbOf(const Picture& picture, const PixelRect& part) {
        static_assert(bytesPerPixel == 3 || bytesPerPixel == 4);
        Bytes rgb(static_cast<std::size_t>(part.width) * static_cast<std::size_t>(part.height) *
                  bytesPerPixel);
        std::uint8_t* out = rgb.data();
        for (std::ptrdiff_t row = part.y; row < part.y + part.height; ++row) {
            const std::uint8_t* y = picture.y + row * picture.strideY;
            const std::uint8_t* u = picture.u + row / 2 * picture.strideU;
            const std::uint8_t* v = picture.v + row / 2 * picture.strideV;
            for (int x = part.x; x < part.x + part.width; ++x) {
                const int light = luma * (y[x] - 16);
                const int cb = u[x / 2] - 128, cr = v[x / 2] - 128;
                *out++ = clamp(light + redV * cr);
                *out++ = clamp(light + greenU * cb + greenV * cr);
                *out++ = clamp(light + blueU * cb);
                if constexpr (bytesPerPixel == 4) *out++ = 255;
            }
        }
        return rgb;
    }
};

}  // namespace velmora
