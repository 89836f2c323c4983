#pragma once

#include <QIcon>
#include <QPixmap>

class QPainter;
class QRectF;

namespace velmora {

/// The program's sign: a V of two ribbons on a blue tile, which stands on light and on dark ground alike.
/// Drawn by code, so that it is sharp at every size; on the main thread, once there is an application.

void drawLogo(QPainter& painter, const QRectF& field);

/// `size` by `size` points, for a screen with `devicePixelRatio` pixels to a point.
QPixmap logoPixmap(int size, double devicePixelRatio = 1);

/// 16 to 256 pixels, for windows and the tray.
QIcon logoIcon();

/// The program's name and its sign, for every window that it opens from now on.
void introduceApplication();

}  // namespace velmora
