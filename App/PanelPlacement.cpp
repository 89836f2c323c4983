#include "App/PanelPlacement.h"

#include <algorithm>

namespace velmora {

namespace {

constexpr int edgeGap = 8, anchorGap = 6;

/// From `top` to before `bottom`.
struct Room {
    bool isBelow;
    int top, bottom;
};

Room roomAt(const QRect& anchor, const QRect& visible) {
    const int visibleBottom = visible.y() + visible.height();
    if (anchor.center().y() <= visible.center().y())
        return {true, std::max(anchor.y() + anchor.height() + anchorGap, visible.y()),
                visibleBottom - edgeGap};
    return {false, visible.y() + edgeGap, std::min(anchor.y() - anchorGap, visibleBottom)};
}

}  // namespace

QRect panelFrame(const QRect& anchor, const QSize& size, const QRect& visible) {
    int x = anchor.x() + (anchor.width() - size.width()) / 2;
    x = std::max(x, visible.x() + edgeGap);
    x = std::min(x, visible.x() + visible.width() - size.width() - edgeGap);
    const Room room = roomAt(anchor, visible);
    const int y = room.isBelow ? std::max(std::min(room.top, room.bottom - size.height()), visible.y())
                               : std::max(room.bottom - size.height(), visible.y() + edgeGap);
    return {QPoint(x, y), size};
}

int tallestPanel(const QRect& anchor, const QRect& visible) {
    const Room room = roomAt(anchor, visible);
    return std::max(room.bottom - room.top, 0);
}

int tallestPanel(const QRect& visible) {
    return std::max(visible.height() - 2 * edgeGap, 0);
}

}  // namespace velmora
