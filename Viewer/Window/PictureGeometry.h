#pragma once

#include <optional>

#include "Platform/Picture.h"

namespace velmora {

/// Where the picture lies in a view, and which part of it a place in the view is. A value; lengths are points
/// of the view from its top left corner.
///
/// The picture is fitted into the view. Zoomed, it slides under the pointer: with the pointer at the view's
/// left edge the picture's left edge is shown, at the right edge its right edge.
struct PictureGeometry {
    static constexpr double leastZoom = 1, mostZoom = 5;

    struct Point {
        double x = 0, y = 0;
        bool operator==(const Point&) const = default;
    };
    struct Rect {
        double x = 0, y = 0, width = 0, height = 0;
        bool contains(Point p) const { return p.x >= x && p.y >= y && p.x < x + width && p.y < y + height; }
    };

    PixelSize stream{16, 9};  // only the shape of it counts
    double width = 0, height = 0;
    double zoom = leastZoom;
    std::optional<Point> pointer;  // last seen while zoomed; none: the middle

    /// Empty for a view or a stream without a size.
    Rect picture() const;
    /// `place` as fractions of the stream. One beside the picture is pinned to its nearest edge.
    Point fractionsAt(Point place) const;
};

}  // namespace velmora
