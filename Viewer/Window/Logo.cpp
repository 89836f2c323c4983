#include "Viewer/Window/Logo.h"

#include <QApplication>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <cmath>

namespace velmora {

namespace {

// On a field of 64 by 64.
constexpr double fieldSide = 64;
constexpr double tileMargin = 3, tileRadius = 15;
// Multiples of four where they can be: whole pixels at 16.
constexpr double armTop = 16, foot = 50, armLeft = 11, armWidth = 15, footLeft = 24.5;

/// One arm of the V as a parallelogram, from its top at `left` down to the foot.
QPainterPath arm(double left, double footAt) {
    QPainterPath path;
    path.addPolygon(
        QPolygonF({{left, armTop}, {left + armWidth, armTop}, {footAt + armWidth, foot}, {footAt, foot}}));
    path.closeSubpath();
    return path;
}

}  // namespace

void drawLogo(QPainter& painter, const QRectF& field) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(field.topLeft());
    painter.scale(field.width() / fieldSide, field.height() / fieldSide);

    // At a few pixels every one of them counts: the margin goes.
    const double margin = field.width() < 24 ? 0 : tileMargin;
    const QRectF tile = QRectF(0, 0, fieldSide, fieldSide).adjusted(margin, margin, -margin, -margin);
    QLinearGradient blue(0, tile.top(), 0, tile.bottom());
    blue.setColorAt(0, QColor(0x3D, 0x97, 0xFF));
    blue.setColorAt(1, QColor(0x0B, 0x55, 0xC4));
    painter.setPen(Qt::NoPen);
    painter.setBrush(blue);
    painter.drawRoundedRect(tile, tileRadius, tileRadius);

    // The far arm first, in the shade of the near one.
    painter.setBrush(QColor(0xA9, 0xCE, 0xFF));
    painter.drawPath(arm(fieldSide - armLeft - armWidth, footLeft));
    painter.setBrush(Qt::white);
    painter.drawPath(arm(armLeft, footLeft));
    painter.restore();
}

QPixmap logoPixmap(int size, double devicePixelRatio) {
    const int pixels = static_cast<int>(std::lround(size * devicePixelRatio));
    QPixmap pixmap(pixels, pixels);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    drawLogo(painter, QRectF(0, 0, pixels, pixels));
    painter.end();
    pixmap.setDevicePixelRatio(devicePixelRatio);
    return pixmap;
}

QIcon logoIcon() {
    QIcon icon;
    for (const int side : {16, 20, 22, 24, 32, 48, 64, 96, 128, 256}) icon.addPixmap(logoPixmap(side));
    return icon;
}

void introduceApplication() {
    QCoreApplication::setApplicationName(QStringLiteral("Velmora"));
    QApplication::setWindowIcon(logoIcon());
}

}  // namespace velmora
