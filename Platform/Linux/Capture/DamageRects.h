#pragma once

#include <vector>

#include "Platform/Picture.h"

namespace velmora {

/// `rect` grown to even sides and cut to a picture of even `size`; empty when nothing is left.
PixelRect evenlyAround(const PixelRect& rect, PixelSize size);

/// Brings the rectangles that a window system reports into the order a picture is worked off in: even, within
/// `size`, sorted by y then x, not overlapping. Rectangles are gathered into bands of rows, and bands closer
/// than `nearby` rows into one; within a band all rectangles have its full height, and those closer than
/// `nearby` columns are one. A little unchanged picture costs less than another request or a ragged mask.
std::vector<PixelRect> tidyDamage(const std::vector<PixelRect>& rects, PixelSize size, int nearby = 16);

}  // namespace velmora
