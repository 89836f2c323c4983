#include "App/DebugLogWindow.h"

#include <QFontDatabase>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTextBlock>
#include <QVBoxLayout>
#include <utility>

#include "App/WindowPlacing.h"
#include "Shared/Preferences.h"
#include "Viewer/Window/Appearance.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;
using Appearance::grid;

constexpr QSize firstSize(720, 360), leastSize(400, 200);
constexpr int followMargin = 20;  // points from the end that still count as being there
constexpr auto copiedTime = 1200ms;

}  // namespace

DebugLogWindow::DebugLogWindow(const Services& services)
    : services_(services),
      text_(new QPlainTextEdit(this)),
      copy_(new QPushButton(QStringLiteral("Copy All"), this)) {
    setWindowTitle(QStringLiteral("Velmora Debug Log"));
    setMinimumSize(leastSize);

    text_->setReadOnly(true);
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    text_->setUndoRedoEnabled(false);
    text_->setMaximumBlockCount(DebugLog::maxEntries);
    text_->setFrameShape(QFrame::NoFrame);
    text_->setAccessibleName(QStringLiteral("Debug log"));
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPixelSize(12);
    text_->setFont(mono);
    text_->document()->setDocumentMargin(grid);

    auto* const clear = new QPushButton(QStringLiteral("Clear"), this);
    connect(copy_, &QPushButton::clicked, this, [this] { copyAll(); });
    connect(clear, &QPushButton::clicked, this, [this] { services_.log.clear(); });

    auto* const buttons = new QHBoxLayout;
    buttons->setContentsMargins(grid, grid, grid, grid);
    buttons->setSpacing(grid);
    buttons->addStretch(1);
    buttons->addWidget(copy_);
    buttons->addWidget(clear);
    auto* const column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(text_, 1);
    column->addLayout(buttons);

    auto* const frame =
        new RememberedFrame(*this, services_.preferences, std::string(PreferenceKeys::debugLogFrame));
    frame->restore(firstSize);
}

DebugLogWindow::~DebugLogWindow() {
    if (isVisible()) stopListening();
}

void DebugLogWindow::present(Focus focus) {
    setAttribute(Qt::WA_ShowWithoutActivating, focus == Focus::leave);
    if (focus == Focus::leave) return show();
    bringForward(*this);
}

// Hearing

void DebugLogWindow::showEvent(QShowEvent* event) {
    if (!event->spontaneous()) startListening();
}

void DebugLogWindow::hideEvent(QHideEvent* event) {
    if (!event->spontaneous()) stopListening();
}

void DebugLogWindow::startListening() {
    listening_.renew();
    emptyText();
    const auto entries = services_.log.setObserver(
        &services_.main,
        listening_.guard([this](const std::optional<DebugLog::Entry>& entry) { hear(entry); }));
    append({entries.begin(), entries.end()});
    scrollToEnd();
}

void DebugLogWindow::stopListening() {
    services_.log.setObserver(nullptr, nullptr);
    listening_.renew();
    emptyText();
}

// Notices come in the order of the log, so a cleared log is reloaded by what follows.
void DebugLogWindow::hear(const std::optional<DebugLog::Entry>& entry) {
    if (!entry) return emptyText();
    waiting_.push_back(*entry);
    if (waiting_.size() > DebugLog::maxEntries) waiting_.pop_front();
    if (!showTimer_) showTimer_ = services_.main.after(showInterval, [this] { showWaiting(); });
}

void DebugLogWindow::showWaiting() {
    if (isAtEnd()) {
        append(std::exchange(waiting_, {}));
        return scrollToEnd();
    }
    // What somebody reads stays where it is, though lines above it may go.
    QScrollBar& bar = *text_->verticalScrollBar();
    const QTextCursor top = text_->cursorForPosition(QPoint(0, 0));
    const int linesAbove = bar.value() - top.block().firstLineNumber();
    append(std::exchange(waiting_, {}));
    bar.setValue(top.block().firstLineNumber() + linesAbove);
}

// Showing

void DebugLogWindow::emptyText() {
    showTimer_.reset();
    waiting_.clear();
    text_->clear();
}

void DebugLogWindow::append(const std::deque<DebugLog::Entry>& entries) {
    QTextCharFormat formats[2];  // a format without a colour follows the palette
    formats[static_cast<int>(DebugLog::Source::server)].setForeground(palette().color(QPalette::Link));
    QTextCursor end(text_->document());
    end.movePosition(QTextCursor::End);
    end.beginEditBlock();
    bool isFirst = text_->document()->isEmpty();
    for (auto entry = entries.begin(); entry != entries.end();) {
        const auto source = entry->source;
        std::string lines;
        for (; entry != entries.end() && entry->source == source; ++entry) {
            if (!std::exchange(isFirst, false)) lines += '\n';
            lines += DebugLog::lineOf(*entry);
        }
        end.insertText(QString::fromStdString(lines), formats[static_cast<int>(source)]);
    }
    end.endEditBlock();
}

bool DebugLogWindow::isAtEnd() const {
    const QScrollBar& bar = *text_->verticalScrollBar();  // counts lines
    return (bar.maximum() - bar.value()) * text_->fontMetrics().lineSpacing() <= followMargin;
}

void DebugLogWindow::scrollToEnd() {
    text_->verticalScrollBar()->setValue(text_->verticalScrollBar()->maximum());
}

void DebugLogWindow::copyAll() {
    services_.pasteboard.write({{Pasteboard::Type::text, bytesOf(services_.log.plainText())}});
    copy_->setText(QStringLiteral("Copied"));
    copiedTimer_ = services_.main.after(copiedTime, [this] { copy_->setText(QStringLiteral("Copy All")); });
}

// The colours of lines that stand there are of the old theme.
void DebugLogWindow::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange && isVisible()) startListening();
}

void DebugLogWindow::keyPressEvent(QKeyEvent* event) {
    if (event->matches(QKeySequence::Close)) {
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}

}  // namespace velmora
