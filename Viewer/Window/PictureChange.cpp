#include "Viewer/Window/PictureChange.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace velmora {

namespace {

/// Bounds of differing samples in one plane; none while `bottom` is 0.
struct Bounds {
    int left = 0, top = 0, right = 0, bottom = 0;

    void include(const std::uint8_t* a, int strideA, const std::uint8_t* b, int strideB, int width,
                 int height) {
        left = width;
        for (int y = 0; y < height; ++y, a += strideA, b += strideB) {
            if (std::memcmp(a, b, static_cast<std::size_t>(width)) == 0) continue;
            if (bottom == 0) top = y;
            bottom = y + 1;
            // Only what lies outside of what is known already.
            left = static_cast<int>(std::mismatch(a, a + left, b).first - a);
            while (right < width &&
                   std::memcmp(a + right, b + right, static_cast<std::size_t>(width - right)) != 0)
                right = std::min(width, right + 16);
        }
    }
};

}  // namespace

PixelRect changedPart(const Picture& before, const Picture& after) {
    const auto [width, height] = after.size;
    if (before.size != after.size) return {0, 0, width, height};
    const int halfWidth = (width + 1) / 2, halfHeight = (height + 1) / 2;
    Bounds luma, blue, red;
    luma.include(before.y, before.strideY, after.y, after.strideY, width, height);
    blue.include(before.u, before.strideU, after.u, after.strideU, halfWidth, halfHeight);
    red.include(before.v, before.strideV, after.v, after.strideV, halfWidth, halfHeight);
    int left = width, top = height, right = 0, bottom = 0;
    const auto unite = [&](const Bounds& b, int scale) {
        if (b.bottom == 0) return;
        left = std::min(left, b.left * scale);
        top = std::min(top, b.top * scale);
        right = std::max(right, b.right * scale);
        bottom = std::max(bottom, b.bottom * scale);
    };
    unite(luma, 1);
    unite(blue, 2);
    unite(red, 2);
    if (bottom == 0) return {};
    left -= left % 2;
    top -= top % 2;
    right = std::min(width, right + right % 2);
    bottom = std::min(height, bottom + bottom % 2);
    return {left, top, right - left, bottom - top};
}

}  // namespace velmora
