#pragma once

#include <algorithm>
#include <cstdint>

#include "Platform/Picture.h"

namespace velmora {

/// Pixels of 32 bits in memory, each 0xAARRGGBB of this machine's byte order, in rows of `stride` bytes.
struct PixelMemory {
    std::uint8_t* pixels = nullptr;
    int stride = 0;
    PixelSize size;
};

/// What lies in both; empty if nothing does.
inline PixelRect intersectionOf(const PixelRect& a, const PixelRect& b) {
    const int left = std::max(a.x, b.x), top = std::max(a.y, b.y);
    const int right = std::min(a.x + a.width, b.x + b.width);
    const int bottom = std::min(a.y + a.height, b.y + b.height);
    return {left, top, std::max(0, right - left), std::max(0, bottom - top)};
}

/// Draws pictures into the memory of a window, scaled with smooth edges. One object per window, used on one
/// thread: it may keep what it made of the last picture.
class PicturePainter {
public:
    virtual ~PicturePainter() = default;

    /// Draws what lies within `clip` of a picture that as a whole fills `place`; both are in pixels of
    /// `target` and may reach beyond it. Nothing outside of all three is touched; what is drawn is opaque.
    virtual void paint(const SharedPicture& picture, const PixelRect& place, const PixelRect& clip,
                       const PixelMemory& target) = 0;
};

}  // namespace velmora
