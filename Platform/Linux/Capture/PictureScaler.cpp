#include "Platform/Linux/Capture/PictureScaler.h"

#include <libyuv/scale_argb.h>

#include "Platform/Linux/Capture/DamageRects.h"

namespace velmora {
namespace {

struct Span {
    int start, length;
};

/// Where source pixels [start, start + length) of `from` land among `to`, with the filter's reach: one source
/// pixel to each side, and one of the picture for the rounding.
Span reach(int start, int length, int from, int to) {
    const auto scaled = [&](std::int64_t at) { return static_cast<int>(at * to / from); };
    const int first = scaled(start - 1) - 1;
    return {first, scaled(start + length + 1) + 2 - first};
}

}  // namespace

PictureScaler::PictureScaler(PixelSize source, PixelSize picture)
    : source_(source),
      picture_(picture),
      pixels_(static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height) * 4) {}

PixelRect PictureScaler::reachOf(const PixelRect& rect) const {
    if (rect.isEmpty()) return {};
    const Span x = reach(rect.x, rect.width, source_.width, picture_.width);
    const Span y = reach(rect.y, rect.height, source_.height, picture_.height);
    return evenlyAround({x.start, y.start, x.length, y.length}, picture_);
}

void PictureScaler::scale(const std::uint8_t* source, int stride, int firstRow, int rows) {
    libyuv::ARGBScaleClip(source, stride, source_.width, source_.height, pixels_.data(), this->stride(),
                          picture_.width, picture_.height, 0, firstRow, picture_.width, rows,
                          libyuv::kFilterBox);
}

}  // namespace velmora
