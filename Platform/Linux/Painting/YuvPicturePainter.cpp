#include "Platform/Linux/Painting/YuvPicturePainter.h"

#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

#include <array>
#include <cstddef>
#include <cstring>

namespace velmora {

namespace {

constexpr int bytesPerPixel = 4;

std::uint8_t* pixelAt(const PixelMemory& target, int x, int y) {
    return target.pixels + std::ptrdiff_t{y} * target.stride + std::ptrdiff_t{x} * bytesPerPixel;
}

/// `from` must begin at even places: two pixels each way share their colour.
void convertPart(const Picture& picture, const PixelRect& from, std::uint8_t* to, int stride) {
    const std::ptrdiff_t row = from.y, column = from.x;
    libyuv::I420ToARGBMatrix(picture.y + row * picture.strideY + column, picture.strideY,
                             picture.u + row / 2 * picture.strideU + column / 2, picture.strideU,
                             picture.v + row / 2 * picture.strideV + column / 2, picture.strideV, to, stride,
                             &libyuv::kYuvH709Constants, from.width, from.height);
}

/// Where in a source of `source` pixels the middle of pixel `i` of `length` lies, in 1/256 of a pixel, kept
/// between the middles of the first and the last.
std::int64_t sourceOf(int i, int length, int source) {
    const std::int64_t at = (std::int64_t{2} * i + 1) * source * 128 / length - 128;
    return std::clamp<std::int64_t>(at, 0, std::int64_t{source - 1} * 256);
}

/// Two pixels mixed, four bytes at a time in two halves; `part` of 256 is the second's.
std::uint32_t mixed(std::uint32_t a, std::uint32_t b, std::uint32_t part) {
    constexpr std::uint32_t every2nd = 0x00FF00FF;
    const std::uint32_t low = (a & every2nd) * (256 - part) + (b & every2nd) * part;
    const std::uint32_t high = (a >> 8 & every2nd) * (256 - part) + (b >> 8 & every2nd) * part;
    return (low >> 8 & every2nd) | (high & ~every2nd);
}

}  // namespace

void YuvPicturePainter::paint(const SharedPicture& picture, const PixelRect& place, const PixelRect& clip,
                              const PixelMemory& target) {
    if (!picture || picture->size.width <= 0 || picture->size.height <= 0) return;
    const PixelRect part =
        intersectionOf(intersectionOf(place, clip), {0, 0, target.size.width, target.size.height});
    if (part.isEmpty()) return;
    const PixelSize size = picture->size;
    const PixelRect from{part.x - place.x, part.y - place.y, part.width, part.height};
    std::uint8_t* const to = pixelAt(target, part.x, part.y);

    if (size == PixelSize{place.width, place.height}) {
        if (from.x % 2 == 0 && from.y % 2 == 0) return convertPart(*picture, from, to, target.stride);
        convert(picture);
        libyuv::ARGBCopy(pixels_.data() + (std::ptrdiff_t{from.y} * size.width + from.x) * bytesPerPixel,
                         size.width * bytesPerPixel, to, target.stride, from.width, from.height);
        return;
    }
    convert(picture);
    if (place.width >= size.width && place.height >= size.height) return enlarge(place, part, target);
    libyuv::ARGBScaleClip(
        pixels_.data(), size.width * bytesPerPixel, size.width, size.height,
        to - std::ptrdiff_t{from.y} * target.stride - std::ptrdiff_t{from.x} * bytesPerPixel, target.stride,
        place.width, place.height, from.x, from.y, from.width, from.height, libyuv::kFilterBox);
}

void YuvPicturePainter::convert(const SharedPicture& picture) {
    if (converted_ == picture) return;
    const PixelSize size = picture->size;
    pixels_.resize(static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height) *
                   bytesPerPixel);
    convertPart(*picture, {0, 0, size.width, size.height}, pixels_.data(), size.width * bytesPerPixel);
    converted_ = picture;
}

/// Bilinear, with the middles of the corner pixels where they belong. libyuv's own puts the outermost middles
/// on the outermost pixels, which at five times the size moves a picture by two pixels. Rows are stretched
/// first, each only once, then mixed in pairs.
void YuvPicturePainter::enlarge(const PixelRect& place, const PixelRect& part, const PixelMemory& target) {
    const PixelSize size = converted_->size;
    const auto width = static_cast<std::size_t>(part.width);
    std::vector<std::uint32_t> columns(
        width);  // source column in the upper 24 bits, part of the next in the lower 8
    for (std::size_t i = 0; i < width; ++i) {
        columns[i] = static_cast<std::uint32_t>(
            sourceOf(part.x - place.x + static_cast<int>(i), place.width, size.width));
    }
    rows_.resize(2 * width * bytesPerPixel);
    std::array<int, 2> held{-1, -1};  // which source rows are in `rows_`
    const auto stretched = [&](int row) {
        const std::size_t slot = static_cast<std::size_t>(row % 2);
        std::uint8_t* const out = rows_.data() + slot * width * bytesPerPixel;
        if (held[slot] == row) return out;
        held[slot] = row;
        const std::uint8_t* const in = pixels_.data() + std::ptrdiff_t{row} * size.width * bytesPerPixel;
        for (std::size_t i = 0; i < width; ++i) {
            const std::uint32_t column = columns[i] >> 8;
            std::uint32_t a, b;
            std::memcpy(&a, in + column * bytesPerPixel, sizeof a);
            const std::uint32_t next = std::min(column + 1, static_cast<std::uint32_t>(size.width - 1));
            std::memcpy(&b, in + next * bytesPerPixel, sizeof b);
            const std::uint32_t pixel = mixed(a, b, columns[i] & 255);
            std::memcpy(out + i * bytesPerPixel, &pixel, sizeof pixel);
        }
        return out;
    };
    for (int y = part.y; y < part.y + part.height; ++y) {
        const std::int64_t at = sourceOf(y - place.y, place.height, size.height);
        const int row = static_cast<int>(at >> 8);
        const std::uint8_t* const above = stretched(row);
        const std::uint8_t* const below = stretched(std::min(row + 1, size.height - 1));
        libyuv::ARGBInterpolate(above, part.width * bytesPerPixel, below, part.width * bytesPerPixel,
                                pixelAt(target, part.x, y), target.stride, part.width, 1,
                                static_cast<int>(at & 255));
    }
}

}  // namespace velmora
