#include "App/AlertWindow.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

#include "App/LogoView.h"
#include "App/Style.h"
#include "App/WindowPlacing.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

using Style::grid;

constexpr int textWidth = 48 * grid, signSide = 7 * grid;
constexpr int titleLines = 2;
constexpr int mostTextHeight = 40 * grid;  // then it scrolls
constexpr int longestRun = 24;             // characters without a blank: no word of ours is longer

/// A line can be broken within what has no blanks.
QString breakable(const QString& text) {
    QString result;
    int run = 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (qsizetype from = 0, to = 0; (to = finder.toNextBoundary()) > from; from = to) {
        run = text[from].isSpace() ? 0 : run + 1;
        result += QStringView(text).mid(from, to - from);
        if (run >= longestRun) result += QChar(0x200B);  // zero width space
    }
    return result;
}

/// Line feeds are all that may stand in it beside printable characters.
QString paragraphs(const std::string& text) {
    QStringList lines;
    std::size_t at = 0;
    while (at <= text.size()) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines += breakable(Style::line(std::string_view(text).substr(at, end - at)));
        at = end + 1;
    }
    return lines.join(QLatin1Char('\n'));
}

/// Both ends of a title say something: it names a host in its midst.
QString shortened(const std::string& title, const QFont& font) {
    constexpr std::size_t longestTitle = 1 << 16;  // bytes, of which next to nothing is seen
    const QString line = QString::fromStdString(printableLine(title, longestTitle));
    return breakable(
        QFontMetrics(font).elidedText(line, Qt::ElideMiddle, textWidth * titleLines - textWidth / 2));
}

LogoView::Badge badgeOf(Alert::Style style) {
    switch (style) {
        case Alert::Style::informational:
            return LogoView::Badge::none;
        case Alert::Style::warning:
            return LogoView::Badge::warning;
        case Alert::Style::critical:
            return LogoView::Badge::critical;
    }
    return {};
}

QLabel* wrappedLabel(const QString& text, const QFont& font, QWidget* parent) {
    auto* const label = new QLabel(parent);
    label->setTextFormat(Qt::PlainText);
    label->setFont(font);
    label->setWordWrap(true);
    label->setText(text);
    label->setFixedWidth(textWidth);
    label->setFixedHeight(label->heightForWidth(textWidth));
    return label;
}

/// The text, in a frame that scrolls if it must.
QWidget* textField(const QString& text, QWidget* parent) {
    QLabel* const label = wrappedLabel(text, parent->font(), parent);
    if (label->height() <= mostTextHeight) return label;
    auto* const area = new QScrollArea(parent);
    area->setFrameShape(QFrame::NoFrame);
    area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    area->setFocusPolicy(Qt::StrongFocus);
    area->setAccessibleName(QStringLiteral("Text"));
    area->setWidget(label);
    area->setFixedSize(textWidth + 3 * grid, mostTextHeight);
    return area;
}

}  // namespace

AlertWindow::AlertWindow(Queue& main, const Alert& alert)
    : QDialog(nullptr,
              Qt::Dialog | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint),
      main_(main),
      lastButton_(alert.buttons.empty() ? 0 : alert.buttons.size() - 1) {
    setWindowTitle(QStringLiteral("Velmora"));
    const QFont titleFont = Style::font(1.15, QFont::Bold);
    setAccessibleName(Style::line(alert.title));

    auto* const sign = new LogoView(signSide, badgeOf(alert.style), this);
    auto* const words = new QVBoxLayout;
    words->setSpacing(grid);
    words->addWidget(wrappedLabel(shortened(alert.title, titleFont), titleFont, this));
    if (!alert.text.empty()) words->addWidget(textField(paragraphs(alert.text), this));
    words->addStretch(1);
    auto* const top = new QHBoxLayout;
    top->setSpacing(2 * grid);
    top->addWidget(sign, 0, Qt::AlignTop);
    top->addLayout(words);

    auto* const buttons = new QHBoxLayout;
    buttons->setSpacing(grid);
    buttons->addStretch(1);
    const std::vector<std::string> faces =
        alert.buttons.empty() ? std::vector<std::string>{"OK"} : alert.buttons;
    QPushButton* first = nullptr;
    for (std::size_t i = faces.size(); i-- > 0;) {
        auto* const button = new QPushButton(Style::line(faces[i]), this);
        connect(button, &QPushButton::clicked, this, [this, i] { choose(i); });
        button->installEventFilter(this);
        buttons->addWidget(button);
        first = button;
    }
    first->setDefault(true);
    first->setFocus();

    auto* const column = new QVBoxLayout(this);
    column->setSizeConstraint(QLayout::SetFixedSize);
    column->setContentsMargins(3 * grid, 3 * grid, 3 * grid, 2 * grid);
    column->setSpacing(3 * grid);
    column->addLayout(top);
    column->addLayout(buttons);
}

void AlertWindow::present() {
    adjustSize();
    centreOnScreen(*this);
    shownAt_ = main_.now();
    bringForward(*this);
}

bool AlertWindow::eventFilter(QObject* object, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        const bool isHeld = static_cast<QKeyEvent*>(event)->isAutoRepeat();
        if (isHeld || main_.now() < shownAt_ + deafTime) return true;
    }
    return QDialog::eventFilter(object, event);
}

void AlertWindow::reject() {
    choose(lastButton_);
}

void AlertWindow::choose(std::size_t button) {
    hide();
    if (const auto notify = std::exchange(onChosen, nullptr)) notify(button);
}

}  // namespace velmora
