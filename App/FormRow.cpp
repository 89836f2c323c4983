#include "App/FormRow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "App/Controls.h"
#include "App/DigitField.h"
#include "App/Style.h"

namespace velmora {

using Style::grid;

FormRow::FormRow(const QString& name, QWidget* field, QWidget* beside, QWidget* parent)
    : QWidget(parent), field_(field), words_(new InkLabel(this)) {
    auto* const label = new QLabel(name, this);
    label->setFont(Style::font(1, QFont::DemiBold));
    label->setBuddy(field);
    field->setAccessibleName(name);
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
}

void FormRow::setWords(const QString& words, Tone tone) {
    words_->setText(words);
    field_->setAccessibleDescription(words);
    words_->setInk(tone == Tone::problem ? Appearance::StatusColor::bad : Appearance::StatusColor::quiet);
}

QString FormRow::words() const {
    return words_->text();
}

QWidget* makeRevealButton(DigitField& field, QWidget* parent) {
    auto* const button = new GlyphButton(Style::Glyph::eye, {}, {}, parent);
    const auto reveal = [button, &field](bool isWanted) {
        field.setEchoMode(isWanted ? QLineEdit::Normal : QLineEdit::Password);
        button->setGlyph(isWanted ? Style::Glyph::closedEye : Style::Glyph::eye);
        const QString words = isWanted ? QStringLiteral("Hide password") : QStringLiteral("Show password");
        button->setAccessibleName(words);
        button->setToolTip(words);
    };
    reveal(false);
    button->onClick = [reveal, &field] { reveal(field.echoMode() == QLineEdit::Password); };
    button->setAutoDefault(false);
    return button;
}

}  // namespace velmora
