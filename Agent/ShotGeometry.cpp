#include "Agent/ShotGeometry.h"

#include <algorithm>
#include <cmath>

namespace velmora::ShotGeometry {

namespace {

PixelSize scaled(PixelSize size, double factor) {
    const auto side = [&](int length) { return std::max(1, static_cast<int>(std::round(length * factor))); };
    return {side(size.width), side(size.height)};
}

/// The pixels, fully or partly, between `begin` and `end`, as far as there are any.
struct Span {
    Span(double begin, double end, int limit)
        : from(static_cast<int>(std::floor(std::clamp(begin, 0.0, double{1} * limit)))),
          to(static_cast<int>(std::ceil(std::clamp(end, 0.0, double{1} * limit)))) {}
    int from, to;
    int length() const { return to - from; }
};

}  // namespace

PixelSize shotSizeOf(PixelSize stream) {
    if (stream.width <= 0 || stream.height <= 0) return {};
    const double longer = std::max(stream.width, stream.height);
    return scaled(stream, std::min(longestSide / longer, 1.0));
}

std::optional<Cut> cutOf(PixelSize picture, PixelSize stream, const std::optional<Region>& region) {
    if (picture.width <= 0 || picture.height <= 0) return std::nullopt;
    const int shotWidth = shotSizeOf(stream).width;
    if (!region || shotWidth == 0) {
        const double factor = shotWidth == 0 ? 1.0 : double{1} * shotWidth / picture.width;
        return Cut{{0, 0, picture.width, picture.height}, scaled(picture, std::min(factor, 1.0))};
    }
    const double factor = double{1} * picture.width / shotWidth;
    const Span across(factor * region->x, factor * (region->x + region->width), picture.width);
    const Span down(factor * region->y, factor * (region->y + region->height), picture.height);
    const PixelRect from{across.from, down.from, across.length(), down.length()};
    if (from.isEmpty()) return std::nullopt;
    return Cut{from, shotSizeOf({from.width, from.height})};
}

}  // namespace velmora::ShotGeometry
