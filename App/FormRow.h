#pragma once

#include <QWidget>

namespace velmora {

class DigitField;
class InkLabel;

/// A field with its name above it and a line of words below it: what belongs in the field, or what is wrong
/// with what is there.
class FormRow final : public QWidget {
public:
    /// Takes the field; `beside`, if there is one, stands to its right and belongs to it. The field is named
    /// for screen readers by `name`.
    FormRow(const QString& name, QWidget* field, QWidget* beside, QWidget* parent);

    enum class Tone { hint, problem };
    void setWords(const QString& words, Tone tone);
    QString words() const;

private:
    QWidget* field_;
    InkLabel* words_;
};

/// The button beside a field that shows what is typed there, or dots.
QWidget* makeRevealButton(DigitField& field, QWidget* parent);

}  // namespace velmora
