#pragma once

#include <QRect>

namespace velmora {

/// Where a panel belongs that opens at `anchor`, such as a tray item: centred below it, or above where the
/// anchor lies in the lower half of the screen, and away from the edges of `visible`, which is what other
/// panels leave of the screen. In points.
QRect panelFrame(const QRect& anchor, const QSize& size, const QRect& visible);

/// The height that such a panel may have and leave the anchor to be seen.
int tallestPanel(const QRect& anchor, const QRect& visible);
/// The same for a panel that may lie over its anchor.
int tallestPanel(const QRect& visible);

}  // namespace velmora
