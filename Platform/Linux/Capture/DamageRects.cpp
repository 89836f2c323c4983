#include "Platform/Linux/Capture/DamageRects.h"

#include <algorithm>

namespace velmora {

PixelRect evenlyAround(const PixelRect& rect, PixelSize size) {
    if (rect.isEmpty()) return {};
    const int left = std::max(rect.x, 0) & ~1, top = std::max(rect.y, 0) & ~1;
    const int right = std::min((rect.x + rect.width + 1) & ~1, size.width);
    const int bottom = std::min((rect.y + rect.height + 1) & ~1, size.height);
    if (right <= left || bottom <= top) return {};
    return {left, top, right - left, bottom - top};
}

std::vector<PixelRect> tidyDamage(const std::vector<PixelRect>& rects, PixelSize size, int nearby) {
    std::vector<PixelRect> pieces;
    for (const PixelRect& rect : rects) {
        const PixelRect piece = evenlyAround(rect, size);
        if (!piece.isEmpty()) pieces.push_back(piece);
    }
    std::ranges::sort(pieces, {}, &PixelRect::y);

    std::vector<PixelRect> tidy;
    for (auto first = pieces.begin(); first != pieces.end();) {
        int bottom = first->y + first->height;
        auto last = first + 1;
        for (; last != pieces.end() && last->y < bottom + nearby; ++last) {
            bottom = std::max(bottom, last->y + last->height);
        }
        const int top = first->y;
        std::sort(first, last, [](const PixelRect& a, const PixelRect& b) { return a.x < b.x; });
        const auto bandStart = tidy.size();
        for (; first != last; ++first) {
            if (tidy.size() > bandStart && first->x < tidy.back().x + tidy.back().width + nearby) {
                PixelRect& before = tidy.back();
                before.width = std::max(before.width, first->x + first->width - before.x);
            } else {
                tidy.push_back({first->x, top, first->width, bottom - top});
            }
        }
    }
    return tidy;
}

}  // namespace velmora
