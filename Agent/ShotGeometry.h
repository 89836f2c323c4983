#pragma once

#include <optional>

#include "Platform/Picture.h"

namespace velmora {

/// An agent sees the stream as pictures of at most 1568 pixels on the longer side, and all its coordinates
/// are pixels of those. This is the only place that knows how the two sizes relate.
namespace ShotGeometry {

constexpr int longestSide = 1568;

/// A part of the full screenshot, in its pixels, from the top left.
struct Region {
    double x = 0, y = 0, width = 0, height = 0;
    bool operator==(const Region&) const = default;
};

/// What to cut out of a picture and how large to make it.
struct Cut {
    PixelRect from;
    PixelSize size;
    bool operator==(const Cut&) const = default;
};

/// The size of a full screenshot of such a stream; never larger than the stream.
PixelSize shotSizeOf(PixelSize stream);

/// How a screenshot is made of `picture`, the newest of a stream of size `stream`. With a region only that
/// part, at up to the picture's own resolution; none if nothing of the region is on the picture.
std::optional<Cut> cutOf(PixelSize picture, PixelSize stream, const std::optional<Region>& region);

}  // namespace ShotGeometry

}  // namespace velmora
