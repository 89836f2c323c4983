#include "Viewer/Window/ToolbarButton.h"

#include <QEvent>
#include <QPainterPath>
#include <cmath>

#include "Viewer/Window/Appearance.h"

namespace velmora {

namespace {

constexpr double signSide = 20, cornerRadius = 6;
constexpr int widestWords = 220, narrowestWords = 90, wordMargin = 12, chevronWidth = 10;

QPainterPath magnifier() {
    QPainterPath path;
    path.addEllipse(QPointF(8.5, 8.5), 5.75, 5.75);
    path.moveTo(12.7, 12.7);
    path.lineTo(17, 17);
    path.moveTo(6, 8.5);
    path.lineTo(11, 8.5);
    return path;
}

/// A corner of a frame, `length` along both edges.
void addCorner(QPainterPath& path, QPointF corner, double dx, double dy) {
    path.moveTo(corner.x() + dx, corner.y());
    path.lineTo(corner);
    path.lineTo(corner.x(), corner.y() + dy);
}

QPainterPath camera() {
    QPainterPath path;
    addCorner(path, {2.5, 2.5}, 3.5, 3.5);
    addCorner(path, {17.5, 2.5}, -3.5, 3.5);
    addCorner(path, {2.5, 17.5}, 3.5, -3.5);
    addCorner(path, {17.5, 17.5}, -3.5, -3.5);
    path.addRoundedRect(QRectF(5.5, 7, 9, 6.5), 1.5, 1.5);
    path.addEllipse(QPointF(10, 10.25), 1.6, 1.6);
    return path;
}

QPainterPath chart() {
    QPainterPath path;
    path.moveTo(2.5, 17.5);
    path.lineTo(17.5, 17.5);
    for (const auto& [x, top] : {std::pair{5.0, 11.5}, {10.0, 4.0}, {15.0, 8.0}})
        path.addRect(QRectF(x - 1.5, top, 3, 17.5 - top));
    return path;
}

QPainterPath log() {
    QPainterPath path;
    path.addRoundedRect(QRectF(3.5, 2.5, 13, 15), 2, 2);
    for (const double y : {6.5, 10.0, 13.5}) {
        path.moveTo(6.5, y);
        path.lineTo(y > 13 ? 11 : 13.5, y);
    }
    return path;
}

QPainterPath fullScreen(bool enters) {
    QPainterPath path;
    for (const double side : {-1.0, 1.0}) {
        const QPointF outer(10 + side * 7, 10 - side * 7), inner(10 + side * 2, 10 - side * 2);
        path.moveTo(outer);
        path.lineTo(inner);
        const double length = 4.5 * side;
        if (enters) {
            addCorner(path, outer, -length, length);
        } else {
            addCorner(path, inner, length, -length);
        }
    }
    return path;
}

QPainterPath pathOf(Symbol symbol) {
    switch (symbol) {
        case Symbol::none:
            return {};
        case Symbol::zoomOut:
            return magnifier();
        case Symbol::zoomIn: {
            QPainterPath path = magnifier();
            path.moveTo(8.5, 6);
            path.lineTo(8.5, 11);
            return path;
        }
        case Symbol::camera:
            return camera();
        case Symbol::chart:
            return chart();
        case Symbol::log:
            return log();
        case Symbol::enterFullScreen:
            return fullScreen(true);
        case Symbol::leaveFullScreen:
            return fullScreen(false);
    }
    return {};
}

}  // namespace

void drawSymbol(QPainter& painter, Symbol symbol, const QRectF& field, const QColor& color) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(field.topLeft());
    painter.scale(field.width() / signSide, field.height() / signSide);
    painter.setPen(QPen(color, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPath(pathOf(symbol));
    painter.restore();
}

ToolbarButton::ToolbarButton(Symbol symbol, const QString& label, const QString& toolTip, QWidget* parent)
    : QAbstractButton(parent), symbol_(symbol) {
    setToolTip(toolTip);
    setAccessibleName(label);
    setFocusPolicy(Qt::TabFocus);
    setAttribute(Qt::WA_Hover);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void ToolbarButton::setSymbol(Symbol symbol) {
    symbol_ = symbol;
    update();
}

void ToolbarButton::setWords(const QString& words) {
    symbol_ = Symbol::none;
    setText(words);
    setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    setAccessibleDescription(words);
    updateGeometry();
    update();
}

void ToolbarButton::setMenuOpen(bool open) {
    isMenuOpen_ = open;
    update();
}

QSize ToolbarButton::sizeHint() const {
    if (symbol_ != Symbol::none) return {side + 4, side};
    const int words = std::min(fontMetrics().horizontalAdvance(text()), widestWords);
    return {words + 2 * wordMargin + Appearance::grid + chevronWidth, side};
}

QSize ToolbarButton::minimumSizeHint() const {
    return symbol_ == Symbol::none ? sizeHint().boundedTo({narrowestWords, side}) : sizeHint();
}

bool ToolbarButton::event(QEvent* event) {
    if (event->type() == QEvent::EnabledChange || event->type() == QEvent::PaletteChange) update();
    return QAbstractButton::event(event);
}

void ToolbarButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette::ColorGroup group = isEnabled() ? QPalette::Active : QPalette::Disabled;
    QColor color = palette().color(group, QPalette::ButtonText);
    const bool isSunk = isDown() || isMenuOpen_;
    QColor ground = palette().color(QPalette::ButtonText);
    ground.setAlphaF(isSunk                    ? 0.18F
                     : underMouse()            ? 0.10F
                     : isChecked()             ? 0.14F
                     : symbol_ == Symbol::none ? 0.06F
                                               : 0.0F);
    if (!isEnabled()) {
        color.setAlphaF(0.45F);
        ground.setAlphaF(0);
    }
    const QRectF area = QRectF(rect()).adjusted(1, 1, -1, -1);
    painter.setPen(Qt::NoPen);
    painter.setBrush(ground);
    painter.drawRoundedRect(area, cornerRadius, cornerRadius);
    if (isChecked() && isEnabled()) color = palette().color(QPalette::Link);
    if (hasFocus()) {
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
        painter.drawRoundedRect(area, cornerRadius, cornerRadius);
    }
    if (symbol_ != Symbol::none) {
        const QPointF corner((width() - signSide) / 2, (height() - signSide) / 2);
        drawSymbol(painter, symbol_, {corner, QSizeF(signSide, signSide)}, color);
        return;
    }
    painter.setPen(color);
    const QRect words = rect().adjusted(wordMargin, 0, -(wordMargin + Appearance::grid + chevronWidth), 0);
    painter.drawText(words, Qt::AlignVCenter | Qt::AlignLeft,
                     fontMetrics().elidedText(text(), Qt::ElideMiddle, words.width()));
    const QPointF tip(width() - wordMargin - chevronWidth / 2.0, height() / 2.0 + 2);
    painter.setPen(QPen(color, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(Qt::NoBrush);
    painter.drawPolyline(QPolygonF({tip + QPointF(-4, -4), tip, tip + QPointF(4, -4)}));
}

}  // namespace velmora
