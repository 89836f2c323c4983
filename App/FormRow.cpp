#include "App/FormRow.h"

#include <QAbstractButton>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

#include "App/DigitField.h"
#include "App/Style.h"

namespace velmora {

using Style::grid;

namespace {

/// Shows what is typed in a field, or dots.
class RevealButton final : public QAbstractButton {
public:
    RevealButton(DigitField& field, QWidget* parent) : QAbstractButton(parent), field_(field) {
        setFocusPolicy(Qt::TabFocus);
        setAttribute(Qt::WA_Hover);
        setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
        connect(this, &QAbstractButton::clicked, this, [this] { reveal(!isRevealed()); });
        reveal(false);
    }
    QSize sizeHint() const override { return {4 * grid, 4 * grid}; }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        if (isDown() || underMouse()) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(isDown() ? Style::pressedGround(palette()) : Style::hoverGround(palette()));
            painter.drawRoundedRect(rect(), Style::rowRadius, Style::rowRadius);
        }
        QRectF field(0, 0, Style::signSide, Style::signSide);
        field.moveCenter(QRectF(rect()).center());
        Style::drawGlyph(painter, isRevealed() ? Style::Glyph::closedEye : Style::Glyph::eye, field,
                         palette().color(QPalette::WindowText));
        if (hasFocus()) Style::drawFocusRing(painter, rect(), Style::rowRadius, palette());
    }

private:
    bool isRevealed() const { return field_.echoMode() == QLineEdit::Normal; }
    void reveal(bool isWanted) {
        field_.setEchoMode(isWanted ? QLineEdit::Normal : QLineEdit::Password);
        const QString words = isWanted ? QStringLiteral("Hide password") : QStringLiteral("Show password");
        setAccessibleName(words);
        setToolTip(words);
        update();
    }

    DigitField& field_;
};

}  // namespace

FormRow::FormRow(const QString& name, QWidget* field, QWidget* beside, QWidget* parent)
    : QWidget(parent), field_(field), words_(new QLabel(this)) {
    auto* const label = new QLabel(name, this);
    label->setFont(Style::font(1, QFont::DemiBold));
    label->setBuddy(field);
    field->setAccessibleName(name);
    words_->setTextFormat(Qt::PlainText);
    words_->setWordWrap(true);
    words_->setMinimumHeight(words_->fontMetrics().lineSpacing());

    auto* const line = new QHBoxLayout;
    line->setSpacing(grid / 2);
    line->addWidget(field, 1);
    if (beside) line->addWidget(beside);
    auto* const column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(grid / 2);
    column->addWidget(label);
    column->addLayout(line);
    column->addWidget(words_);
    colourWords();
}

void FormRow::setWords(const QString& words, Tone tone) {
    words_->setText(words);
    field_->setAccessibleDescription(words);
    tone_ = tone;
    colourWords();
}

QString FormRow::words() const {
    return words_->text();
}

void FormRow::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) colourWords();
}

void FormRow::colourWords() {
    const QColor color = tone_ == Tone::problem ? Style::inkOf(Appearance::StatusColor::bad, palette())
                                                : Style::faintInk(palette());
    QPalette colours = words_->palette();
    if (colours.color(QPalette::WindowText) == color) return;
    colours.setColor(QPalette::WindowText, color);
    words_->setPalette(colours);
}

QWidget* makeRevealButton(DigitField& field, QWidget* parent) {
    return new RevealButton(field, parent);
}

}  // namespace velmora
