#include "Viewer/Window/MainMenu.h"

#include <gmock/gmock.h>

#include <QMenu>
#include <QTest>

#include "Tests/ViewerSessionFixture.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class MainMenuTest : public ViewerSessionFixture {
protected:
    void openWithMenu(MainMenu::Application application = {}) {
        prepare = [this, application] {
            menu = new MainMenu(*session, application);
            window().setMenuBar(*menu);
        };
        open();
    }
    static std::string plain(QString text) { return text.remove('&').toStdString(); }
    QMenu* menuCalled(const std::string& title) {
        for (QMenu* const found : menu->findChildren<QMenu*>()) {
            if (plain(found->title()) == title) return found;
        }
        return nullptr;
    }
    QAction* item(const std::string& menuTitle, const std::string& title) {
        const QMenu* const in = menuCalled(menuTitle);
        if (!in) return nullptr;
        for (QAction* const action : in->actions()) {
            if (plain(action->text()) == title) return action;
        }
        return nullptr;
    }
    bool choose(const std::string& menuTitle, const std::string& title) {
        QAction* const action = item(menuTitle, title);
        if (!action || !action->isEnabled()) return false;
        action->trigger();
        advance(10ms);
        return true;
    }
    /// What a person sees on opening it: ticked with a star, in brackets what cannot be chosen.
    std::string opened(const std::string& title) {
        QMenu& shown = *menuCalled(title);
        Q_EMIT shown.aboutToShow();
        std::string items;
        for (const QAction* action : shown.actions()) {
            if (action->isSeparator()) continue;
            const std::string text = (action->isChecked() ? "*" : "") + plain(action->text());
            items += (items.empty() ? "" : ", ") + (action->isEnabled() ? text : "(" + text + ")");
        }
        return items;
    }
    void type(Qt::Key key, Qt::KeyboardModifiers modifiers) {
        QTest::keyClick(window().windowHandle(), key, modifiers);
        if (session) advance(10ms);
    }

    MainMenu* menu = nullptr;
};

TEST_F(MainMenuTest, itSaysWhatCanBeDoneNow) {
    openWithMenu();
    struct Moment {
        const char* when;
        std::function<void()> happens;
        const char *view, *remote;
    };
    const Moment moments[] = {
        {"connecting", [] {}, "Hide Toolbar, Zoom In, (Zoom Out), (Actual Size), Show Stats",
         "Display, (Take Screenshot), Disconnect"},
        {"streaming",
         [this] {
             stream({64, 48}, true);
         },
         "Hide Toolbar, Zoom In, (Zoom Out), (Actual Size), Show Stats",
         "Display, Take Screenshot, Disconnect"},
        {"zoomed", [this] { EXPECT_TRUE(choose("View", "Zoom In")); },
         "Hide Toolbar, Zoom In, Zoom Out, Actual Size, Show Stats", "Display, Take Screenshot, Disconnect"},
        {"actual size again, with stats, without toolbar",
         [this] {
             EXPECT_TRUE(choose("View", "Actual Size"));
             EXPECT_TRUE(choose("View", "Show Stats"));
             EXPECT_TRUE(choose("View", "Hide Toolbar"));
         },
         "Show Toolbar, Zoom In, (Zoom Out), (Actual Size), Hide Stats",
         "Display, Take Screenshot, Disconnect"},
    };
    for (const Moment& moment : moments) {
        moment.happens();
        EXPECT_EQ(opened("View"), moment.view) << moment.when;
        EXPECT_EQ(opened("Remote"), moment.remote) << moment.when;
        EXPECT_EQ(opened("Window"), "Close, Minimize, Enter Full Screen") << moment.when;
    }
    EXPECT_FALSE(menuCalled("Velmora"));  // there is nothing that it could do
    EXPECT_TRUE(window().stats().isVisible());
    EXPECT_TRUE(choose("Remote", "Take Screenshot"));
    EXPECT_TRUE(window().toast().isVisible());
    EXPECT_TRUE(choose("Window", "Enter Full Screen"));
    EXPECT_EQ(opened("Window"), "Close, Minimize, Exit Full Screen");
    EXPECT_TRUE(choose("Remote", "Disconnect"));
    EXPECT_EQ(ended, "closed");
}

TEST_F(MainMenuTest, theProgramsOwnItemsAreThereIfItHasThem) {
    std::string done;
    const auto does = [&done](const char* what) { return [&done, what] { done += what; }; };
    openWithMenu({.about = does("about "),
                  .openSettings = does("settings "),
                  .quit = does("quit "),
                  .showDebugLog = does("log")});
    EXPECT_EQ(opened("Velmora"), "About Velmora, Settings…, Quit Velmora");
    for (const char* title : {"About Velmora", "Settings…", "Quit Velmora"})
        EXPECT_TRUE(choose("Velmora", title));
    EXPECT_TRUE(choose("View", "Show Debug Log"));
    EXPECT_EQ(done, "about settings quit log");
}

TEST_F(MainMenuTest, displaysAreListedAsTheHostLastToldThem) {
    openWithMenu();
    EXPECT_EQ(opened("Display"), "(No displays yet)");
    stream({64, 48}, true);
    DisplayList list{.displays = {{4, "Left", 1920, 1080}, {7, "Right", 800, 600}}, .currentID = 4};
    host.send(MessageType::displayList, list.encode());
    advance(50ms);
    EXPECT_EQ(opened("Display"), "(Match This Window), *Left — 1920×1080, Right — 800×600");
    EXPECT_TRUE(choose("Display", "Right — 800×600"));
    advance(50ms);
    EXPECT_EQ(DisplaySelection::decode(host.lastOf(MessageType::selectDisplay))->displayID, 7u);
    list = {.displays = std::vector<ServerDisplay>(100, {9, "Wall", 640, 480}), .virtualAvailable = true};
    host.send(MessageType::displayList, list.encode());
    advance(50ms);
    EXPECT_THAT(opened("Display"), testing::StartsWith("*Match This Window, Wall — 640×480, Wall"));
    EXPECT_EQ(menuCalled("Display")->actions().size(), 102);
}

TEST_F(MainMenuTest, itsKeysAreTheHostsWhileKeysGoThere) {
    openWithMenu();
    KeyboardPreferences::setSendKeys(preferences, KeyboardPreferences::SendKeys::windowActive);
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
    type(Qt::Key_Plus, Qt::ControlModifier);  // nobody to send it to yet
    EXPECT_TRUE(session->isZoomed());
    stream({64, 48}, true);
    type(Qt::Key_0, Qt::ControlModifier);
    EXPECT_TRUE(session->isZoomed());
    type(Qt::Key_W, Qt::ControlModifier);
    ASSERT_TRUE(session);

    const auto wayOut = [this] {
        QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape,
                         Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier, 9, 0, 0);
        EXPECT_TRUE(window().onKey(escape));
    };
    wayOut();
    type(Qt::Key_0, Qt::ControlModifier);
    EXPECT_FALSE(session->isZoomed());
    QTest::mouseClick(&window().view(), Qt::LeftButton);
    type(Qt::Key_Plus, Qt::ControlModifier);
    EXPECT_FALSE(session->isZoomed());

    wayOut();
    for (const bool isFullScreen : {true, false, true}) {  // its menu is out of sight then
        type(Qt::Key_F11, Qt::NoModifier);
        EXPECT_EQ(window().isFullScreen(), isFullScreen);
    }
    EXPECT_FALSE(menu->isVisible());
    wayOut();
    EXPECT_TRUE(menu->isVisible());
    type(Qt::Key_W, Qt::ControlModifier);
    EXPECT_EQ(ended, "closed");
}

TEST_F(MainMenuTest, anOpenMenuHasTheKeysForItself) {
    openWithMenu();
    KeyboardPreferences::setSendKeys(preferences, KeyboardPreferences::SendKeys::windowActive);
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
    stream({64, 48}, true);
    QKeyEvent down(QEvent::KeyPress, Qt::Key_Down, {}, 116, 0, 0);
    EXPECT_TRUE(window().onKey(down));
    advance(50ms);
    EXPECT_EQ(shortcuts.held(), 1);
    const auto keys = host.countOf(MessageType::input);
    menuCalled("View")->popup({0, 0});
    EXPECT_EQ(shortcuts.held(), 0);
    EXPECT_FALSE(window().onKey(down));
    advance(50ms);
    EXPECT_EQ(host.countOf(MessageType::input), keys + 1);  // the key came up there
    menuCalled("View")->hide();
    EXPECT_EQ(shortcuts.held(), 1);
    EXPECT_TRUE(window().onKey(down));
}

TEST_F(MainMenuTest, inFullScreenItComesWithTheToolbar) {
    openWithMenu();
    stream({64, 48}, true);
    const auto bars = [this] { return std::pair(menu->isVisible(), window().toolbar().isVisible()); };
    constexpr std::pair both{true, true}, none{false, false};
    EXPECT_EQ(bars(), both);
    EXPECT_EQ(window().view().y(), menu->height() + ViewerToolbar::barHeight);
    window().toggleFullScreen();
    advance(10ms);
    EXPECT_EQ(bars(), none);
    EXPECT_EQ(window().view().geometry(), window().rect());
    window().showBars();
    EXPECT_EQ(bars(), both);
    const auto movePointer = [this](QWidget& over, int y) {
        const QPointF at(100, y);
        QMouseEvent event(QEvent::MouseMove, at, at, Qt::NoButton, {}, {});
        QCoreApplication::sendEvent(&over, &event);
    };
    movePointer(window().view(), 300);  // they were asked for
    EXPECT_EQ(bars(), both);
    movePointer(*menu, 5);
    movePointer(window().view(), 300);
    EXPECT_EQ(bars(), none);
}

}  // namespace
}  // namespace velmora
