#include "App/Controls.h"

#include <QFocusEvent>
#include <QKeyEvent>
#include <QPainter>

namespace velmora {

using Style::grid;

InkLabel::InkLabel(QWidget* parent) : QLabel(parent) {
    setTextFormat(Qt::PlainText);
}

void InkLabel::setInk(std::optional<Appearance::StatusColor> ink) {
    ink_ = ink;
    update();
}

void InkLabel::paintEvent(QPaintEvent* event) {
    if (!ink_) return QLabel::paintEvent(event);
    QPainter painter(this);
    painter.setPen(Style::inkOf(*ink_, palette()));
    painter.drawText(contentsRect(),
                     static_cast<int>(alignment()) | (wordWrap() ? Qt::TextWordWrap : Qt::TextSingleLine),
                     text());
}

PlainButton::PlainButton(const QString& label, QWidget* parent) : QPushButton(parent) {
    setAccessibleName(label);
    setAttribute(Qt::WA_Hover);
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::ArrowCursor);
    connect(this, &QAbstractButton::clicked, this, [this] {
        if (const auto act = onClick) act();
    });
}

void PlainButton::drawGround(QPainter& painter, const QRectF& area, double radius) const {
    painter.setRenderHint(QPainter::Antialiasing);
    if (isEnabled() && (isDown() || underMouse())) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(isDown() ? Style::pressedGround(palette()) : Style::hoverGround(palette()));
        painter.drawRoundedRect(area, radius, radius);
    }
    if (hasFocus() && cameByKey_) Style::drawFocusRing(painter, area, radius, palette());
}

bool PlainButton::event(QEvent* event) {
    if (event->type() == QEvent::EnabledChange || event->type() == QEvent::PaletteChange) update();
    if (event->type() == QEvent::FontChange) updateGeometry();
    return QPushButton::event(event);
}

void PlainButton::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
        case Qt::Key_Return:
        case Qt::Key_Enter:
            if (!event->isAutoRepeat()) click();
            break;
        case Qt::Key_Down:
            focusNextChild();
            break;
        case Qt::Key_Up:
            focusPreviousChild();
            break;
        default:
            QPushButton::keyPressEvent(event);
    }
}

void PlainButton::focusInEvent(QFocusEvent* event) {
    switch (event->reason()) {
        case Qt::TabFocusReason:
        case Qt::BacktabFocusReason:
        case Qt::ShortcutFocusReason:
        case Qt::OtherFocusReason:
            cameByKey_ = true;
            break;
        case Qt::MouseFocusReason:
            cameByKey_ = false;
            break;
        default:  // the window comes back, a menu closes: as it was
            break;
    }
    QPushButton::focusInEvent(event);
}

GlyphButton::GlyphButton(Style::Glyph glyph, const QString& label, const QString& toolTip, QWidget* parent)
    : PlainButton(label, parent), glyph_(glyph) {
    setToolTip(toolTip);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void GlyphButton::setGlyph(Style::Glyph glyph) {
    glyph_ = glyph;
    update();
}

void GlyphButton::setInk(std::optional<Appearance::StatusColor> ink) {
    ink_ = ink;
    update();
}

void GlyphButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    drawGround(painter, rect(), Style::rowRadius);
    constexpr double small = Style::signSide - 2;
    QColor color = ink_ ? Style::inkOf(*ink_, palette()) : Style::faintInk(palette());
    if (!ink_ && isEnabled() && underMouse()) color = palette().color(QPalette::WindowText);
    if (!isEnabled()) color.setAlphaF(0.4F);
    Style::drawGlyph(painter, glyph_, {(width() - small) / 2, (height() - small) / 2, small, small}, color);
}

WordButton::WordButton(const QString& words, const QString& toolTip, QWidget* parent)
    : PlainButton(words, parent), words_(words) {
    setToolTip(toolTip);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize WordButton::sizeHint() const {
    return {fontMetrics().horizontalAdvance(words_) + 3 * grid, fontMetrics().height() + grid};
}

void WordButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const QRectF area = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor frame = palette().color(QPalette::WindowText);
    frame.setAlphaF(0.25F);
    painter.setPen(QPen(frame, 1));
    painter.drawRoundedRect(area, Style::rowRadius, Style::rowRadius);
    drawGround(painter, area, Style::rowRadius);
    painter.setPen(
        palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::ButtonText));
    painter.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, words_);
}

}  // namespace velmora
