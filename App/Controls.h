#pragma once

#include <QLabel>
#include <QPushButton>
#include <functional>
#include <optional>

#include "App/Style.h"

namespace velmora {

/// Plain words, in the colour of a status or the usual one.
class InkLabel : public QLabel {
public:
    explicit InkLabel(QWidget* parent);
    void setInk(std::optional<Appearance::StatusColor> ink);
    std::optional<Appearance::StatusColor> ink() const { return ink_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::optional<Appearance::StatusColor> ink_;
};

/// A button that draws itself: subclasses paint on the ground that it lays. Return acts as Space does, the
/// arrow keys walk on as Tab does, and the ring shows for who came by key. `label` is what screen readers
/// say.
class PlainButton : public QPushButton {
public:
    PlainButton(const QString& label, QWidget* parent);

    std::function<void()> onClick;

protected:
    /// What lies behind everything: the ground under the pointer, the ring of the keyboard.
    void drawGround(QPainter& painter, const QRectF& area, double radius) const;

    bool event(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;

private:
    bool cameByKey_ = false;
};

/// A sign alone, with a tool tip that says what it does.
class GlyphButton final : public PlainButton {
public:
    GlyphButton(Style::Glyph glyph, const QString& label, const QString& toolTip, QWidget* parent);

    void setGlyph(Style::Glyph glyph);
    /// Of the sign; the faint ink if none.
    void setInk(std::optional<Appearance::StatusColor> ink);

    static constexpr int side = 28;
    QSize sizeHint() const override { return {side, side}; }
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Style::Glyph glyph_;
    std::optional<Appearance::StatusColor> ink_;
};

/// A word or two in a frame of their own, smaller than a dialog's button.
class WordButton final : public PlainButton {
public:
    WordButton(const QString& words, const QString& toolTip, QWidget* parent);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    const QString words_;
};

}  // namespace velmora
