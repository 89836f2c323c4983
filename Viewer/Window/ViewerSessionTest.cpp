#include "Viewer/Window/ViewerSession.h"

#include <gmock/gmock.h>

#include <QKeyEvent>
#include <QLayout>
#include <nlohmann/json.hpp>

#include "Tests/ViewerSessionFixture.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

using ViewerSessionTest = ViewerSessionFixture;

TEST_F(ViewerSessionTest, theWindowAsksForADisplayOfItsSizeAndTellsWhenItChanges) {
    open();
    const auto asked = host.hello()->display;
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->width, window().view().width());
    EXPECT_EQ(window().connecting().words(), "Connecting to Desk…");
    EXPECT_TRUE(window().connecting().isVisible());
    stream({64, 48}, true);
    EXPECT_FALSE(window().connecting().isVisible());
    EXPECT_EQ(host.countOf(MessageType::resizeDisplay), 0);
    isPointerHeld = true;
    window().setContentSize({700, 500});
    advance(2s);
    EXPECT_EQ(host.countOf(MessageType::resizeDisplay), 0);
    isPointerHeld = false;
    advance(400ms);
    EXPECT_EQ(host.countOf(MessageType::resizeDisplay), 1);
    EXPECT_EQ(*DisplayRequest::decode(host.lastOf(MessageType::resizeDisplay)),
              (DisplayRequest{700, 500, 1}));
}

TEST_F(ViewerSessionTest, aDisplayOfTheHostsOwnGivesTheWindowItsShape) {
    open(ScreenMode::serverDisplay);
    EXPECT_EQ(host.hello()->display, std::nullopt);
    stream({1000, 800}, false);
    const QSize content = window().view().size(), frame = window().visibleFrame().size();
    EXPECT_NEAR(content.width() * 8, content.height() * 10, 20);
    EXPECT_NEAR(
        std::max(content.width() / (frame.width() * 0.85), content.height() / (frame.height() * 0.85)), 1,
        0.01);
    window().setContentSize({900, 700});
    stream({1000, 800}, false);  // nothing new
    advance(2s);
    EXPECT_EQ(window().view().size(), QSize(900, 700));
    window().showFullScreen();
    advance(10ms);
    const QSize full = window().view().size();
    EXPECT_EQ(full, window().size());
    EXPECT_FALSE(window().toolbar().isVisible());
    stream({640, 480}, false);
    EXPECT_EQ(window().view().size(), full);
    EXPECT_EQ(host.countOf(MessageType::resizeDisplay), 0);
    // From a fixed display to one that follows: asked for, whatever its size.
    stream({640, 480}, true);
    EXPECT_EQ(host.countOf(MessageType::resizeDisplay), 1);
}

TEST_F(ViewerSessionTest, displaysAreChosenFromAMenu) {
    open();
    EXPECT_FALSE(press("Display"));  // nothing to choose from yet
    stream({64, 48}, true);
    const DisplayList list{
        .displays = {{4, "Left & right", 1920, 1080}, {7, std::string(300, 'x'), 800, 600}},
        .virtualAvailable = false,
        .currentID = 4};
    host.send(MessageType::displayList, list.encode());
    advance(50ms);
    const auto entries = displayMenu();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], "Match This Window");
    EXPECT_EQ(entries[1], "*Left && right — 1920×1080");
    EXPECT_LT(entries[2].size(), 120u);
    EXPECT_FALSE(window().toolbar().displayMenu().actions()[0]->isEnabled());
    window().toolbar().displayMenu().actions().back()->trigger();
    advance(50ms);
    EXPECT_EQ(DisplaySelection::decode(host.lastOf(MessageType::selectDisplay))->displayID, 7u);
    EXPECT_EQ(ViewerPreferences::screenMode(preferences), ScreenMode::serverDisplay);
    EXPECT_TRUE(window().connecting().isVisible());
    EXPECT_EQ(window().connecting().words(), "Switching display…");
    host.send(MessageType::displayList, DisplayList{.displays = {}, .virtualAvailable = true}.encode());
    advance(50ms);
    EXPECT_FALSE(window().connecting().isVisible());
    EXPECT_EQ(displayMenu(), std::vector<std::string>{"*Match This Window"});
    window().toolbar().displayMenu().actions()[0]->trigger();
    advance(50ms);
    EXPECT_EQ(DisplaySelection::decode(host.lastOf(MessageType::selectDisplay))->window->width,
              window().view().width());
}

TEST_F(ViewerSessionTest, namesOfAnySortAreOneLineAndLeaveRoomForTheRest) {
    name = "Tab\there\nand \x1B[31mred" + std::string(300, 'x');
    open();
    for (const QString& shown : {window().windowTitle(), window().connecting().words()}) {
        EXPECT_TRUE(std::ranges::all_of(shown, [](QChar c) { return c.isPrint(); })) << shown.toStdString();
        EXPECT_LT(shown.size(), 240);
    }
    stream({64, 48}, true);
    const DisplayList list{.displays = {{4, "Wall\n" + std::string(300, 'y'), 800, 600}}, .currentID = 4};
    host.send(MessageType::displayList, list.encode());
    advance(50ms);
    ViewerToolbar& toolbar = window().toolbar();
    for (const int width : {430, 640, 1200}) {
        toolbar.resize(width, ViewerToolbar::barHeight);
        advance(10ms);
        int end = 0;
        for (int i = 0; i < toolbar.layout()->count(); ++i) {
            const QWidget* const part = toolbar.layout()->itemAt(i)->widget();
            if (!part || !part->isVisible()) continue;
            EXPECT_GE(part->x(), end) << width << " " << part->accessibleName().toStdString();
            end = part->geometry().right();
        }
        EXPECT_LT(end, width);
    }
}

TEST_F(ViewerSessionTest, aScreenshotIsSavedAndShownOrTheReasonTold) {
    open();
    EXPECT_FALSE(press("Screenshot"));
    stream({64, 48}, true);
    EXPECT_TRUE(press("Screenshot"));
    EXPECT_TRUE(window().toast().isVisible());
    advance(3900ms);
    EXPECT_TRUE(window().toast().isVisible());
    advance(200ms);
    EXPECT_FALSE(window().toast().isVisible());
    diskIsFull = true;
    EXPECT_TRUE(press("Screenshot"));
    EXPECT_FALSE(window().toast().isVisible());
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_TRUE(alerts.front().starts_with("Couldn't save to “"));
}

TEST_F(ViewerSessionTest, thePanelOfFiguresIsOneForAllWindows) {
    open();
    EXPECT_TRUE(press("Stats"));
    EXPECT_FALSE(window().stats().isVisible());
    stream({64, 48}, true);
    EXPECT_TRUE(window().stats().isVisible());
    preferences.set(PreferenceKeys::showStatsOverlay, false);
    advance(10ms);
    EXPECT_FALSE(window().stats().isVisible());
    EXPECT_FALSE(press("Debug Log"));  // there is no such window here
}

TEST_F(ViewerSessionTest, keysGoToTheHostWhileThePointerIsOverThePicture) {
    open();
    stream({64, 48}, true);
    const auto key = [&](QEvent::Type type) {
        return window().onKey(QKeyEvent(type, Qt::Key_X, {}, 53, 0, 0, "x"));
    };
    const auto keysSent = [&] {
        return std::ranges::count_if(host.received, [](const ScriptedHost::Message& message) {
            return message.type == MessageType::input &&
                   InputEvent::decode(message.payload)->kind == InputEvent::Kind::key;
        });
    };
    const auto movePointer = [&](bool overPicture) {
        const VideoView& view = window().view();
        QCursor::setPos(view.mapToGlobal(overPicture ? view.rect().center() : QPoint(5, -5)));
        window().view().setMouseInside(overPicture);
    };
    movePointer(false);
    EXPECT_FALSE(key(QEvent::KeyPress));
    movePointer(true);
    EXPECT_TRUE(key(QEvent::KeyPress));
    movePointer(false);  // which sends the key up
    EXPECT_FALSE(key(QEvent::KeyRelease));
    advance(50ms);
    EXPECT_EQ(keysSent(), 2);
    KeyboardPreferences::setSendKeys(preferences, KeyboardPreferences::SendKeys::windowActive);
    EXPECT_TRUE(key(QEvent::KeyPress));
    advance(50ms);
    EXPECT_EQ(keysSent(), 3);
}

TEST_F(ViewerSessionTest, itEndsOnceHoweverItEnds) {
    open();
    EXPECT_EQ(keepAwake.displayAssertions(), 1);
    EXPECT_EQ(keepAwake.activities(), 1);
    stream({64, 48}, true);
    window().close();
    advance(1s);
    EXPECT_EQ(ended, "closed");
    EXPECT_FALSE(session);
    EXPECT_EQ(host.countOf(MessageType::bye), 1);
    EXPECT_EQ(keepAwake.displayAssertions() + keepAwake.activities(), 0);
    EXPECT_TRUE(std::filesystem::exists(snapshots.fileFor("Desk")));

    ended.clear();
    open();
    host.send(MessageType::denied, bytesOf("no"));
    advance(1s);
    EXPECT_FALSE(session);
    EXPECT_NE(ended, "closed");
}

TEST_F(ViewerSessionTest, theClipboardIsSharedWhileThePictureRuns) {
    open();
    pasteboard.copyText("before there is a picture");
    advance(1s);
    stream({64, 48}, false);
    EXPECT_EQ(host.countOf(MessageType::clipboard), 0);
    pasteboard.copyText("here");
    advance(1s);
    EXPECT_EQ(host.lastOf(MessageType::clipboard), (Bytes{0, 'h', 'e', 'r', 'e'}));
    host.send(MessageType::clipboard, Bytes{0, 'h', 'o', 's', 't'});
    advance(1s);
    EXPECT_EQ(pasteboard.text(), "host");
    EXPECT_EQ(host.countOf(MessageType::clipboard), 1);
}

}  // namespace
}  // namespace velmora
