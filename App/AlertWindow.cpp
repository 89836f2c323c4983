#include "App/AlertWindow.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

#include "App/Style.h"
#include "App/WindowPlacing.h"
#include "Viewer/Window/Logo.h"

namespace velmora {

namespace {

using Style::grid;

constexpr int textWidth = 48 * grid, signSide = 6 * grid, badgeSide = 3 * grid;
constexpr int titleLines = 3;
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
QString shortened(const QString& title, const QFont& font) {
    const QFontMetrics metrics(font);
    return metrics.elidedText(title, Qt::ElideMiddle, textWidth * (titleLines - 1));
}

/// The program's sign, with a mark at its corner when something is wrong.
QPixmap signOf(Alert::Style style, double devicePixelRatio) {
    QPixmap sign = logoPixmap(signSide, devicePixelRatio);
    if (style == Alert::Style::informational) return sign;
    QPainter painter(&sign);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF field(signSide - badgeSide, signSide - badgeSide, badgeSide, badgeSide);
    const bool isCritical = style == Alert::Style::critical;
    const QColor ground = isCritical ? QColor(0xD9, 0x2D, 0x20) : QColor(0xFF, 0xB8, 0x00);
    const QColor ink = isCritical ? QColor(Qt::white) : QColor(0x2A, 0x20, 0x00);
    painter.setPen(QPen(Qt::white, 1.5));
    painter.setBrush(ground);
    if (isCritical) {
        painter.drawEllipse(field.adjusted(1, 1, -1, -1));
    } else {
        const QPointF corners[] = {{field.center().x(), field.top() + 1.5},
                                   {field.right() - 0.75, field.bottom() - 2},
                                   {field.left() + 0.75, field.bottom() - 2}};
        painter.setPen(QPen(Qt::white, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolygon(corners, 3);
    }
    const double middle = field.center().x(), top = field.top() + (isCritical ? 6 : 9),
                 foot = field.bottom() - (isCritical ? 7 : 5);
    painter.setPen(QPen(ink, 2.4, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(middle, top), QPointF(middle, foot - 4.5));
    painter.drawPoint(QPointF(middle, foot));
    return sign;
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

AlertWindow::AlertWindow(const Alert& alert)
    : QDialog(nullptr,
              Qt::Dialog | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint),
      lastButton_(alert.buttons.empty() ? 0 : alert.buttons.size() - 1) {
    setWindowTitle(QStringLiteral("Velmora"));
    const QFont titleFont = Style::font(1.15, QFont::Bold);
    const QString title = Style::line(alert.title);
    setAccessibleName(title);

    auto* const sign = new QLabel(this);
    sign->setPixmap(signOf(alert.style, devicePixelRatioF()));
    auto* const words = new QVBoxLayout;
    words->setSpacing(grid);
    words->addWidget(wrappedLabel(breakable(shortened(title, titleFont)), titleFont, this));
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
    bringForward(*this);
}

void AlertWindow::reject() {
    choose(lastButton_);
}

void AlertWindow::choose(std::size_t button) {
    hide();
    if (const auto notify = std::exchange(onChosen, nullptr)) notify(button);
}

}  // namespace velmora
