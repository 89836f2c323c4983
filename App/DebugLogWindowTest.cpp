#include "App/DebugLogWindow.h"

#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QTextBlock>

#include "Shared/Preferences.h"
#include "Testing/FakePasteboard.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

class DebugLogWindowTest : public WidgetTest {
protected:
    void write(const std::string& text, DebugLog::Source source = DebugLog::Source::viewer) {
        log_.log(text, source);
    }
    void writeLines(int count) {
        for (int i = 0; i < count; ++i) write("line " + std::to_string(i));
    }
    void pass() {
        time_.advanceBy(DebugLogWindow::showInterval);
        turnEvents();
    }
    QPlainTextEdit& text() { return *window_->findChild<QPlainTextEdit*>(); }
    std::string shown() { return text().toPlainText().toStdString(); }
    QScrollBar& bar() { return *text().verticalScrollBar(); }
    std::string topLine() {
        return text()
            .cursorForPosition({text().viewport()->width() - 1, 12})
            .block()
            .text()
            .mid(22)
            .toStdString();
    }
    void click(const char* face) {
        for (auto* const button : window_->findChildren<QPushButton*>())
            if (button->text() == QLatin1String(face)) return button->click();
        FAIL() << face;
    }
    void open() {
        window_->present(DebugLogWindow::Focus::take);
        turnEvents();
    }

    VirtualTime time_;
    VirtualQueue main_{time_, "main"};
    DebugLog log_;
    FakePreferenceStore preferences_;
    FakePasteboard pasteboard_{main_};
    std::unique_ptr<DebugLogWindow> window_ =
        std::make_unique<DebugLogWindow>(DebugLogWindow::Services{log_, main_, preferences_, pasteboard_});
};

TEST_F(DebugLogWindowTest, showsEachLineOnceWhateverComesWhileItOpensClosesAndClears) {
    write("before");
    open();
    EXPECT_EQ(shown(), log_.plainText());
    write("one", DebugLog::Source::server);
    write("Denied “x\n\u2029\u202e12:00:00.000  SERVER  forged”");
    pass();
    EXPECT_EQ(shown(), log_.plainText());
    EXPECT_EQ(text().document()->blockCount(), 3);
    EXPECT_FALSE(text().textCursor().hasSelection());

    write("not shown any more");
    window_->close();
    write("while it was closed");
    pass();
    EXPECT_EQ(shown(), "");
    open();
    pass();
    EXPECT_EQ(shown(), log_.plainText());

    write("waits");
    click("Clear");
    write("after");
    pass();
    EXPECT_EQ(shown(), log_.plainText());
    EXPECT_EQ(text().document()->blockCount(), 1);
    click("Copy All");
    EXPECT_EQ(pasteboard_.text(), log_.plainText());
    time_.advanceBy(std::chrono::seconds(2));
}

TEST_F(DebugLogWindowTest, followsTheEndOnlyFromTheEnd) {
    writeLines(200);
    open();
    EXPECT_EQ(bar().value(), bar().maximum());
    writeLines(10);
    pass();
    EXPECT_EQ(bar().value(), bar().maximum());

    bar().setValue(bar().maximum() - 1);  // less than 20 points away
    writeLines(1);
    pass();
    EXPECT_EQ(bar().value(), bar().maximum());

    bar().setValue(50);
    const std::string top = topLine();
    writeLines(3);
    pass();
    EXPECT_EQ(topLine(), top);
}

TEST_F(DebugLogWindowTest, whatSomebodyReadsStaysThereWhileOldLinesGo) {
    writeLines(5000);
    open();
    bar().setValue(3000);
    turnEvents();
    const std::string top = topLine();
    for (int i = 0; i < 5; ++i) {
        writeLines(100);
        pass();
    }
    EXPECT_EQ(topLine(), top);
    EXPECT_EQ(shown(), log_.plainText());
}

TEST_F(DebugLogWindowTest, opensWhereItWasAndNeverOutOfReach) {
    EXPECT_EQ(window_->size(), QSize(720, 360));
    open();
    window_->move(40, 50);
    window_->resize(500, 300);
    turnEvents();
    window_->close();
    const auto saved = preferences_.string(PreferenceKeys::debugLogFrame);
    ASSERT_TRUE(saved);
    window_ =
        std::make_unique<DebugLogWindow>(DebugLogWindow::Services{log_, main_, preferences_, pasteboard_});
    open();
    EXPECT_EQ(window_->size(), QSize(500, 300));
    EXPECT_EQ(window_->pos(), QPoint(40, 50));

    struct Case {
        const char* saved;
        QSize size;
    };
    for (const Case& each :
         {Case{"9000 9000 500 300", {500, 300}}, Case{"1 2 3", {720, 360}},
          Case{"0 0 99999999999 1", {720, 360}}, Case{"0 0 -500 300", {720, 360}}, Case{"x", {720, 360}}}) {
        preferences_.set(PreferenceKeys::debugLogFrame, std::string(each.saved));
        window_ = std::make_unique<DebugLogWindow>(
            DebugLogWindow::Services{log_, main_, preferences_, pasteboard_});
        EXPECT_EQ(window_->size(), each.size) << each.saved;
        const QRect frame(window_->pos(), window_->size());
        EXPECT_TRUE(QGuiApplication::primaryScreen()->geometry().contains(frame)) << each.saved;
    }
}

}  // namespace
}  // namespace velmora
