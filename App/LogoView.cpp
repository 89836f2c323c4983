#include "App/LogoView.h"

#include <QPainter>
#include <QPolygonF>

#include "Viewer/Window/Logo.h"

namespace velmora {

LogoView::LogoView(int side, Badge badge, QWidget* parent) : QWidget(parent), badge_(badge) {
    setFixedSize(side, side);
    setAccessibleName(badge == Badge::none      ? QStringLiteral("Velmora")
                      : badge == Badge::warning ? QStringLiteral("Warning")
                                                : QStringLiteral("Important warning"));
}

void LogoView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    drawLogo(painter, rect());
    if (badge_ == Badge::none) return;
    constexpr double share = 0.48;  // of a side
    const double side = width() * share;
    drawBadge(painter, {width() - side, height() - side, side, side});
}

/// On a field of 24 by 24 points.
void LogoView::drawBadge(QPainter& painter, const QRectF& field) const {
    const bool isCritical = badge_ == Badge::critical;
    const QColor ground = isCritical ? QColor(0xD9, 0x2D, 0x20) : QColor(0xFF, 0xB8, 0x00);
    const QColor ink = isCritical ? QColor(Qt::white) : QColor(0x2A, 0x20, 0x00);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(field.topLeft());
    painter.scale(field.width() / 24, field.height() / 24);
    painter.setPen(QPen(Qt::white, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(ground);
    if (isCritical) {
        painter.drawEllipse(QRectF(1, 1, 22, 22));
    } else {
        painter.drawPolygon(QPolygonF({{12, 1.5}, {23.25, 22}, {0.75, 22}}));
    }
    const double top = isCritical ? 6.5 : 9, foot = isCritical ? 17 : 18.5;
    painter.setPen(QPen(ink, 2.4, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(12, top), QPointF(12, foot - 4.5));
    painter.drawPoint(QPointF(12, foot));
}

}  // namespace velmora
