#include "Viewer/Window/PictureGeometry.h"

#include <algorithm>

namespace velmora {

namespace {

/// Where a picture of `scaled` length begins in a view of `length`.
double beginOf(double scaled, double length, double pointer) {
    if (scaled <= length) return (length - scaled) / 2;
    const double fraction = length > 0 ? std::clamp(pointer / length, 0.0, 1.0) : 0.5;
    return fraction * (length - scaled);
}

}  // namespace

PictureGeometry::Rect PictureGeometry::picture() const {
    if (stream.width <= 0 || stream.height <= 0 || width <= 0 || height <= 0) return {};
    const double fit = zoom * std::min(width / stream.width, height / stream.height);
    const double scaledWidth = fit * stream.width, scaledHeight = fit * stream.height;
    const Point focus = pointer.value_or(Point{width / 2, height / 2});
    return {beginOf(scaledWidth, width, focus.x), beginOf(scaledHeight, height, focus.y), scaledWidth,
            scaledHeight};
}

PictureGeometry::Point PictureGeometry::fractionsAt(Point place) const {
    const Rect r = picture();
    if (!(r.width > 0) || !(r.height > 0)) return {};
    return {std::clamp((place.x - r.x) / r.width, 0.0, 1.0),
            std::clamp((place.y - r.y) / r.height, 0.0, 1.0)};
}

}  // namespace velmora
