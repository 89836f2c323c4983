#include "Platform/Linux/System/TurboJpegEncoder.h"

#include <libyuv/scale_argb.h>
#include <turbojpeg.h>

#include <cstddef>
#include <memory>
#include <utility>

#include "Platform/Linux/System/Rgb709.h"

namespace velmora {

namespace {

constexpr int bytesPerPixel = 4;
constexpr int longestSide = 65500;  // of a JPEG that libjpeg makes

/// The order of the colours does not matter to it.
Result<Bytes> scaled(const Bytes& pixels, PixelSize from, PixelSize to) {
    Bytes result(static_cast<std::size_t>(to.width) * static_cast<std::size_t>(to.height) * bytesPerPixel);
    const int failed =
        libyuv::ARGBScale(pixels.data(), from.width * bytesPerPixel, from.width, from.height, result.data(),
                          to.width * bytesPerPixel, to.width, to.height, libyuv::kFilterBox);
    if (failed) return Failure{"the picture cannot be scaled"};
    return result;
}

}  // namespace

Result<Bytes> TurboJpegEncoder::encode(const Picture& picture, const PixelRect& from, PixelSize size) {
    if (!isOn(picture, from)) return Failure{"the part is not on the picture"};
    if (size.width <= 0 || size.height <= 0 || size.width > longestSide || size.height > longestSide)
        return Failure{"no size for a JPEG"};
    Bytes pixels = Rgb709::rgbOf<bytesPerPixel>(picture, from);
    const PixelSize full{from.width, from.height};
    // A picture has one colour for four pixels: where these are the file's four too, it takes up all of it at
    // half the work. Elsewhere the colours of fine text would be blurred a second time.
    const bool keepsColours = full == size && from.x % 2 == 0 && from.y % 2 == 0;
    const int sampling = keepsColours ? TJSAMP_420 : TJSAMP_444;
    if (full != size) {
        auto smaller = scaled(pixels, full, size);
        if (!smaller) return smaller.error();
        pixels = std::move(*smaller);
    }

    const std::unique_ptr<void, int (*)(tjhandle)> compressor(tjInitCompress(), tjDestroy);
    if (!compressor) return Failure{tjGetErrorStr2(nullptr)};
    Bytes jpeg(tjBufSize(size.width, size.height, sampling));
    unsigned char* place = jpeg.data();
    unsigned long length = jpeg.size();
    if (tjCompress2(compressor.get(), pixels.data(), size.width, 0, size.height, TJPF_RGBX, &place, &length,
                    sampling, quality_, TJFLAG_NOREALLOC) != 0) {
        return Failure{tjGetErrorStr2(compressor.get())};
    }
    jpeg.resize(length);
    return jpeg;
}

}  // namespace velmora
