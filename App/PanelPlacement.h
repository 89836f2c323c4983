#pragma once

#include <QRect>

namespace velmora {

/// Where a panel belongs that opens at `anchor`, such as a tray item: centred below it, or above where the
/// anchor lies in the lower half of the screen, and away from the edges of `visible`, which is what other
/// panels leave of the screen. In points.
QRect panelFrame(const QRect& anchor, const QSize& size, const QRect& visible);

/// The height that such a panel may have.
int tallestPanel(const QRect& anchor, const QRect& visible);

}  // namespace velmora
