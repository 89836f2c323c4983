#include "App/DigitField.h"

#include <QKeyEvent>
#include <QValidator>
#include <algorithm>

namespace velmora {

namespace {

constexpr int mostDigits = 24;
constexpr int groupLength = 3;

/// Where the caret is behind so many digits: before the blank that follows a group.
int caretBehind(int digits, bool isGrouped) {
    return isGrouped && digits > 0 ? digits + (digits - 1) / groupLength : digits;
}

/// Turns whatever is there into digits while it is being typed; never refuses.
class DigitsOnly final : public QValidator {
public:
    DigitsOnly(bool isGrouped, QObject* parent) : QValidator(parent), isGrouped_(isGrouped) {}

    State validate(QString& input, int& caret) const override {
        QString kept;
        int digits = 0, beforeCaret = 0;
        for (int i = 0; i < input.size() && digits < mostDigits; ++i) {
            const int value = input[i].digitValue();
            if (value < 0) continue;
            if (isGrouped_ && digits > 0 && digits % groupLength == 0) kept += QLatin1Char(' ');
            kept += QLatin1Char(static_cast<char>('0' + value));
            ++digits;
            if (i < caret) beforeCaret = digits;
        }
        input = kept;
        caret = caretBehind(beforeCaret, isGrouped_);
        return Acceptable;
    }

private:
    const bool isGrouped_;
};

}  // namespace

DigitField::DigitField(int wanted, Grouping grouping, QWidget* parent) : QLineEdit(parent), wanted_(wanted) {
    setValidator(new DigitsOnly(grouping == Grouping::threes, this));
    setInputMethodHints(Qt::ImhDigitsOnly);
}

std::string DigitField::digits() const {
    std::string digits = text().toStdString();
    std::erase(digits, ' ');
    return digits;
}

void DigitField::setDigits(const std::string& digits) {
    clear();
    insert(QString::fromStdString(digits));
}

// Otherwise the blank between two groups would come back for ever.
void DigitField::keyPressEvent(QKeyEvent* event) {
    const bool isBeforeBlank = text().mid(cursorPosition(), 1) == QLatin1String(" ");
    if (event->matches(QKeySequence::Delete) && !hasSelectedText() && isBeforeBlank) cursorForward(false);
    QLineEdit::keyPressEvent(event);
}

}  // namespace velmora
