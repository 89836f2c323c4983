#pragma once

#include <QLineEdit>
#include <string>

namespace velmora {

/// A field for a number that people copy off another screen: keeps the digits of what is typed or pasted, in
/// whatever script, and nothing else. A Host ID stands in groups of three.
class DigitField final : public QLineEdit {
public:
    enum class Grouping { none, threes };
    /// How many digits make it complete. It takes more, so that nobody is left with a wrong number that looks
    /// right.
    DigitField(int wanted, Grouping grouping, QWidget* parent);

    /// In ASCII.
    std::string digits() const;
    int count() const { return static_cast<int>(digits().size()); }
    bool isComplete() const { return count() == wanted_; }
    void setDigits(const std::string& text);

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    const int wanted_;
};

}  // namespace velmora
