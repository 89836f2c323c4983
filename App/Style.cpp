#include "App/Style.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora::Style {

namespace {

using Appearance::StatusColor;

constexpr std::size_t longestLine = 2'000;  // bytes: more than anybody reads, little enough to lay out

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() < 128;
}

QColor translucent(QColor color, float alpha) {
    color.setAlphaF(alpha);
    return color;
}

QPainterPath lineFrom(QPointF from, QPointF to) {
    QPainterPath path(from);
    path.lineTo(to);
    return path;
}

/// A screen on its foot; `chin` is the strip below the picture of an all-in-one machine.
QPainterPath screenOnFoot(bool chin) {
    QPainterPath path;
    path.addRoundedRect(QRectF(2.5, 3, 15, 10.5), 1.5, 1.5);
    if (chin) path.addPath(lineFrom({2.5, 10.5}, {17.5, 10.5}));
    path.addPath(lineFrom({10, 13.5}, {10, 17}));
    path.addPath(lineFrom({6.5, 17}, {13.5, 17}));
    return path;
}

QPainterPath laptop() {
    QPainterPath path;
    path.addRoundedRect(QRectF(4, 4, 12, 8.5), 1.5, 1.5);
    path.moveTo(1.75, 15.5);
    path.lineTo(18.25, 15.5);
    return path;
}

/// A box on a desk with a lamp in front.
QPainterPath box(const QRectF& area) {
    QPainterPath path;
    path.addRoundedRect(area, 2, 2);
    path.addEllipse(QPointF(area.right() - 2.75, area.bottom() - 2.5), 0.4, 0.4);
    path.addPath(lineFrom({area.left() + 2.5, area.bottom() - 2.5}, {area.left() + 6, area.bottom() - 2.5}));
    return path;
}

QPainterPath tower() {
    QPainterPath path;
    path.addRoundedRect(QRectF(5.5, 2.5, 9, 15), 1.5, 1.5);
    path.addPath(lineFrom({8, 5.5}, {12, 5.5}));
    path.addPath(lineFrom({8, 8}, {12, 8}));
    path.addEllipse(QPointF(10, 14), 0.75, 0.75);
    return path;
}

/// A screen that sends waves.
QPainterPath cast() {
    QPainterPath path(QPointF(2.5, 6));
    path.lineTo(2.5, 5);
    path.quadTo(2.5, 3.5, 4, 3.5);
    path.lineTo(16, 3.5);
    path.quadTo(17.5, 3.5, 17.5, 5);
    path.lineTo(17.5, 15);
    path.quadTo(17.5, 16.5, 16, 16.5);
    path.lineTo(12, 16.5);
    for (const double radius : {3.0, 6.5}) {
        path.moveTo(2.5, 16.5 - radius);
        path.arcTo(QRectF(2.5 - radius, 16.5 - radius, 2 * radius, 2 * radius), 90, -90);
    }
    path.addEllipse(QPointF(2.75, 16.25), 0.3, 0.3);
    return path;
}

QPainterPath help() {
    QPainterPath path;
    path.addEllipse(QPointF(10, 10), 7.25, 7.25);
    path.moveTo(7.75, 8);
    path.cubicTo(7.75, 5.2, 12.25, 5.2, 12.25, 8);
    path.cubicTo(12.25, 9.6, 10, 9.7, 10, 11.4);
    path.addEllipse(QPointF(10, 13.9), 0.3, 0.3);
    return path;
}

QPainterPath power() {
    QPainterPath path;
    const QRectF ring(3.5, 4.5, 13, 13);
    path.arcMoveTo(ring, 125);
    path.arcTo(ring, 125, 290);
    path.addPath(lineFrom({10, 2.5}, {10, 9.5}));
    return path;
}

QPainterPath pencil() {
    QPainterPath path(QPointF(3.5, 16.5));
    path.lineTo(4.5, 12.5);
    path.lineTo(13.2, 3.8);
    path.quadTo(14, 3, 14.8, 3.8);
    path.lineTo(16.2, 5.2);
    path.quadTo(17, 6, 16.2, 6.8);
    path.lineTo(7.5, 15.5);
    path.closeSubpath();
    path.addPath(lineFrom({11.5, 5.5}, {14.5, 8.5}));
    return path;
}

QPainterPath eye(bool isClosed) {
    QPainterPath path(QPointF(2, 10));
    path.cubicTo(5.5, 3.5, 14.5, 3.5, 18, 10);
    path.cubicTo(14.5, 16.5, 5.5, 16.5, 2, 10);
    path.addEllipse(QPointF(10, 10), 2.6, 2.6);
    if (isClosed) path.addPath(lineFrom({4, 16.5}, {16, 3.5}));
    return path;
}

QPainterPath copy() {
    QPainterPath path;
    path.addRoundedRect(QRectF(7, 7, 10, 10), 2, 2);
    path.moveTo(4.5, 13);
    path.quadTo(3, 13, 3, 11.5);
    path.lineTo(3, 5);
    path.quadTo(3, 3, 5, 3);
    path.lineTo(11.5, 3);
    path.quadTo(13, 3, 13, 4.5);
    return path;
}

QPainterPath pathOf(Glyph glyph) {
    QPainterPath path;
    switch (glyph) {
        case Glyph::none:
            break;
        case Glyph::allInOne:
            return screenOnFoot(true);
        case Glyph::cast:
            return cast();
        case Glyph::checkmark:
            path.addPolygon(QPolygonF({{4, 10.5}, {8.25, 14.75}, {16, 5.75}}));
            break;
        case Glyph::closedEye:
            return eye(true);
        case Glyph::copy:
            return copy();
        case Glyph::display:
            return screenOnFoot(false);
        case Glyph::eye:
            return eye(false);
        case Glyph::help:
            return help();
        case Glyph::laptop:
            return laptop();
        case Glyph::mini:
            return box({2.5, 7.5, 15, 6.5});
        case Glyph::pencil:
            return pencil();
        case Glyph::play:
            path.addPolygon(QPolygonF({{6, 3.75}, {16, 10}, {6, 16.25}}));
            path.closeSubpath();
            break;
        case Glyph::plus:
            path = lineFrom({10, 4}, {10, 16});
            path.addPath(lineFrom({4, 10}, {16, 10}));
            break;
        case Glyph::power:
            return power();
        case Glyph::square:
            path.addRoundedRect(QRectF(4.5, 4.5, 11, 11), 1.5, 1.5);
            break;
        case Glyph::studio:
            return box({3, 4.5, 14, 11});
        case Glyph::tower:
            return tower();
    }
    return path;
}

}  // namespace

int rowHeight(const QFont& font) {
    return std::max(4 * grid, QFontMetrics(font).height() + 2 * grid);
}

QFont font(double factor, QFont::Weight weight) {
    QFont font = QApplication::font();
    if (font.pointSizeF() > 0) {
        font.setPointSizeF(font.pointSizeF() * factor);
    } else {
        font.setPixelSize(static_cast<int>(font.pixelSize() * factor + 0.5));
    }
    font.setWeight(weight);
    return font;
}

QColor faintInk(const QPalette& palette) {
    return palette.color(QPalette::Active, QPalette::PlaceholderText);
}

QColor inkOf(StatusColor color, const QPalette& palette) {
    const bool dark = isDark(palette);
    switch (color) {
        case StatusColor::quiet:
            return faintInk(palette);
        case StatusColor::busy:
            return QColor::fromRgb(dark ? 0xFFB35C : 0x8F4B00);
        case StatusColor::good:
            return QColor::fromRgb(dark ? 0x5FD68A : 0x14692F);
        case StatusColor::bad:
            return QColor::fromRgb(dark ? 0xFFA29C : 0xB3211D);
    }
    return {};
}

QColor cardGround(const QPalette& palette) {
    return isDark(palette) ? QColor::fromRgb(0x313439) : palette.color(QPalette::Active, QPalette::Base);
}

void drawCard(QPainter& painter, const QRectF& area, const QPalette& palette) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(translucent(palette.color(QPalette::WindowText), 0.10F), 1));
    painter.setBrush(cardGround(palette));
    painter.drawRoundedRect(area.adjusted(0.5, 0.5, -0.5, -0.5), cardRadius, cardRadius);
    painter.restore();
}

QColor hoverGround(const QPalette& palette) {
    return translucent(palette.color(QPalette::WindowText), 0.07F);
}

QColor pressedGround(const QPalette& palette) {
    return translucent(palette.color(QPalette::WindowText), 0.14F);
}

void drawFocusRing(QPainter& painter, const QRectF& area, double radius, const QPalette& palette) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(palette.color(QPalette::Active, QPalette::Highlight), 2));
    painter.drawRoundedRect(area.adjusted(1, 1, -1, -1), radius, radius);
    painter.restore();
}

void drawGlyph(QPainter& painter, Glyph glyph, const QRectF& field, const QColor& color) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(field.topLeft());
    painter.scale(field.width() / signSide, field.height() / signSide);
    painter.setPen(QPen(color, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(pathOf(glyph));
    painter.restore();
}

QString line(std::string_view text) {
    return QString::fromStdString(printableLine(text, longestLine));
}

QString toolTip(std::string_view text) {
    if (text.empty()) return {};
    return QStringLiteral("<qt>%1</qt>").arg(line(text).toHtmlEscaped());
}

}  // namespace velmora::Style
