#include <gmock/gmock.h>

#include <QAccessible>
#include <QClipboard>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>

#include "App/MenuPanelController.h"
#include "App/MenuPanelView.h"
#include "Testing/FakePanelDesktop.h"
#include "Testing/FakeStatusItem.h"
#include "Testing/PanelModels.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;
using Kind = HostSignaling::Status::Kind;

/// The panel as a person meets it: by the words on it, the pointer and the keys.
class MenuPanelTest : public WidgetTest {
protected:
    MenuPanelTest() {
        controller.onShow = [this] { ++shown; };
        auto& actions = models.model.actions;
        const auto note = [this](const char* what) { return [this, what] { calls.emplace_back(what); }; };
        const auto noteDevice = [this](const char* what) {
            return [this, what](const RemoteDevices::Device& device) {
                calls.push_back(what + (" " + device.name));
            };
        };
        actions = {.startServer = note("start"),
                   .stopServer = note("stop"),
                   .disconnectViewer = note("disconnect"),
                   .newPassword = note("new password"),
                   .changePassword = note("change password"),
                   .connect = noteDevice("connect"),
                   .removeDevice = noteDevice("remove"),
                   .addDevice = note("add"),
                   .openHelp = note("help"),
                   .quit = note("quit")};
    }

    static QWidget* panel() {
        for (QWidget* window : QApplication::topLevelWidgets()) {
            if (window->windowTitle() == QLatin1String("Velmora")) return window;
        }
        return nullptr;
    }
    /// The names of what can be pressed, from top to bottom as the Tab key goes.
    static std::vector<std::string> buttons() {
        std::vector<std::string> names;
        const QWidget* first = panel();
        for (QWidget* at = first->nextInFocusChain(); at != first; at = at->nextInFocusChain()) {
            const auto* button = qobject_cast<QAbstractButton*>(at);
            if (button && button->isVisible() && button->isEnabled())
                names.push_back(button->accessibleName().toStdString());
        }
        return names;
    }
    static std::vector<std::string> words() {
        std::vector<std::string> words;
        for (const auto* label : panel()->findChildren<QLabel*>()) {
            if (label->isVisible() && !label->text().isEmpty()) words.push_back(label->text().toStdString());
        }
        return words;
    }
    static PlainButton* button(const std::string& name) {
        for (auto* candidate : panel()->findChildren<QPushButton*>()) {
            if (candidate->isVisible() && candidate->accessibleName().toStdString() == name)
                return static_cast<PlainButton*>(candidate);
        }
        ADD_FAILURE() << "no button " << name;
        return nullptr;
    }
    static void press(const std::string& name) {
        if (auto* found = button(name)) found->click();
    }
    void type(Qt::Key key) {
        QWidget* target = panel()->focusWidget() ? panel()->focusWidget() : panel();
        QKeyEvent down(QEvent::KeyPress, key, Qt::NoModifier), up(QEvent::KeyRelease, key, Qt::NoModifier);
        QApplication::sendEvent(target, &down);
        QApplication::sendEvent(target, &up);
    }
    static std::string focused() {
        const QWidget* widget = panel()->focusWidget();
        return widget ? widget->accessibleName().toStdString() : "";
    }
    /// The items of the menu that a right click on `target` opens; runs the one called `chosen`.
    static std::vector<std::string> menuOf(QWidget* target, const std::string& chosen = "") {
        QContextMenuEvent event(QContextMenuEvent::Mouse, QPoint(2, 2), target->mapToGlobal(QPoint(2, 2)));
        QApplication::sendEvent(target, &event);
        const auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        if (!menu) return {};
        std::vector<std::string> titles;
        QAction* action = nullptr;
        for (QAction* item : menu->actions()) {
            titles.push_back(item->text().toStdString());
            if (titles.back() == chosen) action = item;
        }
        if (action) action->trigger();
        QApplication::activePopupWidget()->close();
        turnEvents();
        return titles;
    }

    PanelModels models;
    FakeStatusItem item;
    FakePanelDesktop desktop;
    MenuPanelController controller{models.model, models.identity, models.devices,
                                   item,         models.main,     {.desktop = &desktop}};
    std::vector<std::string> calls;
    int shown = 0;
};

TEST_F(MenuPanelTest, withoutDevicesItSaysSoAndStillOffersToAddOne) {
    item.click();
    EXPECT_THAT(buttons(), ElementsAre("Copy ID", "Change Password", "Copy Password", "Start Server",
                                       "Add new device", "Help", "Quit Velmora"));
    EXPECT_FALSE(button("No devices found")->isEnabled());
    EXPECT_THAT(words(), IsSupersetOf({"ID:", "852 290 732", "Password:", "042 137"}));
    for (const char* name : {"Start Server", "Change Password", "Add new device", "Help", "Quit Velmora"})
        press(name);
    EXPECT_THAT(calls, ElementsAre("start", "change password", "add", "help", "quit"));
}

TEST_F(MenuPanelTest, followsTheServerWhileItIsOpen) {
    item.click();
    models.change([](MenuModel::State& state) {
        state.serverRunning = true;
        state.serverStatus = "Running · waiting for a viewer";
        state.idStatus.kind = Kind::online;
    });
    EXPECT_THAT(words(), Contains("Online"));
    EXPECT_THAT(words(), Not(Contains(testing::HasSubstr("Running"))));
    press("Stop Server");
    models.change([](MenuModel::State& state) {
        state.connectedViewer = "Anna's MacBook";
        state.serverStatus = "Capture failed: no such display";
        state.idStatus = {Kind::offline, "Can't reach Velmora Cloud"};
    });
    EXPECT_THAT(words(), IsSupersetOf({"Offline", "Capture failed: no such display"}));
    press("Disconnect");
    EXPECT_THAT(calls, ElementsAre("stop", "disconnect"));
    models.change([](MenuModel::State& state) { state = {}; });
    EXPECT_THAT(buttons(), Not(Contains("Disconnect")));
    EXPECT_THAT(words(), Not(Contains("Offline")));
}

TEST_F(MenuPanelTest, onlyASavedDeviceCanBeRemoved) {
    models.advertise("Found");
    models.save("Saved", "123456789");
    models.tellStatus(R"({"id":"123456789","online":false})");
    item.click();
    EXPECT_THAT(menuOf(button("Found")), ElementsAre("Connect"));
    EXPECT_THAT(menuOf(button("Saved"), "Remove"), ElementsAre("Connect", "Remove"));
    EXPECT_EQ(button("Found")->accessibleDescription(), "Online");
    EXPECT_EQ(button("Saved")->accessibleDescription(), "Offline");
    press("Saved");  // though it is offline
    EXPECT_THAT(calls, ElementsAre("remove Saved", "connect Saved"));
}

TEST_F(MenuPanelTest, thePasswordIsCopiedMarkedAndChangedFromItsRow) {
    item.click();
    press("Copy Password");
    EXPECT_EQ(QApplication::clipboard()->text(), "042137");
    EXPECT_EQ(button("Copy Password")->accessibleDescription(), "Copied");
    models.time.advanceBy(1199ms);
    EXPECT_EQ(button("Copy Password")->accessibleDescription(), "Copied");
    models.time.advanceBy(1ms);
    EXPECT_EQ(button("Copy Password")->accessibleDescription(), "Copy");
    EXPECT_THAT(menuOf(button("Copy Password"), "Generate New Password"),
                ElementsAre("Change Password…", "Generate New Password"));
    EXPECT_THAT(calls, ElementsAre("new password"));
    models.identity.setPassword("999111");
    EXPECT_THAT(words(), Contains("999 111"));
}

TEST_F(MenuPanelTest, whileThePasswordCannotBeReadNothingCanBeDoneWithIt) {
    PanelModels locked(PanelModels::Keyring::locked);
    MenuPanelView view(locked.model, locked.identity, locked.devices, locked.main, nullptr);
    for (const auto* button : view.findChildren<QPushButton*>()) {
        const bool isOfPassword = button->accessibleName().contains(QLatin1String("Password"));
        EXPECT_EQ(button->isEnabled(), !isOfPassword && !button->accessibleName().startsWith("No "))
            << button->accessibleName().toStdString();
    }
    locked.secrets.setLocked(false);
    locked.time.advanceBy(10s);
    for (const auto* button : view.findChildren<QPushButton*>())
        EXPECT_EQ(button->isEnabled(), !button->accessibleName().startsWith("No "));
}

TEST_F(MenuPanelTest, escapeClosesItAndTheItemIsNoLongerHighlighted) {
    item.click();
    EXPECT_TRUE(controller.isVisible());
    EXPECT_TRUE(item.isHighlighted);
    EXPECT_EQ(shown, 1);
    type(Qt::Key_Escape);
    EXPECT_FALSE(controller.isVisible());
    EXPECT_FALSE(item.isHighlighted);
}

TEST_F(MenuPanelTest, theClickThatTakesTheFocusFromItDoesNotOpenItAgain) {
    item.click();
    QWidget other;
    other.show();
    other.activateWindow();
    turnEvents();
    models.time.settle();
    EXPECT_FALSE(controller.isVisible());
    EXPECT_FALSE(item.isHighlighted);
    item.click();
    EXPECT_FALSE(controller.isVisible());
    models.time.advanceBy(250ms);
    item.click();
    EXPECT_TRUE(controller.isVisible());
    item.click();
    EXPECT_FALSE(controller.isVisible());
}

TEST_F(MenuPanelTest, aClickElsewhereClosesItEvenWhereThatMovesNoFocus) {
    item.click();
    QCursor::setPos(panel()->geometry().center());
    desktop.press();
    EXPECT_TRUE(controller.isVisible());
    QCursor::setPos(panel()->geometry().bottomRight() + QPoint(5, 5));
    desktop.press();
    EXPECT_FALSE(controller.isVisible());
    EXPECT_FALSE(desktop.isWatching);
    item.click();  // the same click, if it was on the item
    EXPECT_FALSE(controller.isVisible());
}

TEST_F(MenuPanelTest, whereThereIsNoTrayAWindowOpensAndStaysWithinReach) {
    item.setAvailable(false);
    models.time.advanceBy(2s);
    item.setAvailable(true);
    models.time.advanceBy(5s);
    EXPECT_EQ(shown, 0);  // the tray came in time
    item.setAvailable(false);
    desktop.hasWindowManager = false;  // nobody could put the window away
    models.time.advanceBy(10s);
    EXPECT_EQ(shown, 0);
    desktop.hasWindowManager = true;
    models.time.advanceBy(3s);
    EXPECT_EQ(shown, 1);
    EXPECT_FALSE(panel()->windowFlags() & Qt::FramelessWindowHint);
    controller.hide();
    type(Qt::Key_Escape);
    EXPECT_TRUE(controller.isVisible());
    panel()->close();
    EXPECT_TRUE(panel()->isMinimized());
    controller.show();
    EXPECT_TRUE(controller.isVisible());
    item.setAvailable(true);
    panel()->close();
    EXPECT_FALSE(panel()->isVisible());
}

TEST_F(MenuPanelTest, aHundredDevicesScrollInAPanelThatFitsTheScreen) {
    for (int i = 0; i < 100; ++i)
        models.save("Machine " + std::to_string(i), std::to_string(100'000'000 + i));
    models.advertise(std::string(300, 'w'));
    models.advertise("two\nlines\t\x1b[31m");
    item.click();
    const QRect visible = panel()->screen()->availableGeometry();
    EXPECT_TRUE(visible.contains(panel()->geometry()));
    EXPECT_LE(panel()->width(), 300);
    auto* last = button("Machine 99");
    EXPECT_TRUE(last->visibleRegion().isEmpty());
    turnEvents();
    type(Qt::Key_Up);  // from nowhere to the last row, and on to the devices
    for (int i = 0; i < 3; ++i) type(Qt::Key_Up);
    EXPECT_EQ(focused(), "Machine 99");
    EXPECT_FALSE(last->visibleRegion().isEmpty());
    EXPECT_THAT(buttons(), Contains("two lines  [31m"));
}

TEST_F(MenuPanelTest, keysWalkFromRowToRowAndPressThem) {
    item.click();
    std::vector<std::string> walked;
    for (std::size_t i = 0; i < buttons().size(); ++i) {
        type(i % 2 ? Qt::Key_Tab : Qt::Key_Down);
        walked.push_back(focused());
    }
    EXPECT_EQ(walked, buttons());
    type(Qt::Key_Return);
    type(Qt::Key_Up);
    type(Qt::Key_Space);
    EXPECT_THAT(calls, ElementsAre("quit", "help"));
}

TEST_F(MenuPanelTest, theKeyboardStaysNearADeviceThatGoesAndOnOneThatStays) {
    for (const char* name : {"a", "b", "c"}) models.advertise(name);
    item.click();
    button("b")->setFocus(Qt::TabFocusReason);
    models.advertise("0");  // goes above
    EXPECT_EQ(focused(), "b");
    EXPECT_THAT(buttons(), IsSupersetOf({"0", "a", "b", "c"}));
    models.advertised.erase(models.advertised.begin() + 1);
    models.time.settle();
    EXPECT_EQ(focused(), "c");
    models.advertised.clear();
    models.time.settle();
    EXPECT_EQ(focused(), "Add new device");
}

TEST_F(MenuPanelTest, screenReadersFindButtonsWithNames) {
    models.advertise("Found");
    item.click();
    for (auto* button : panel()->findChildren<QAbstractButton*>()) {
        if (!button->isVisible()) continue;
        QAccessibleInterface* seen = QAccessible::queryAccessibleInterface(button);
        ASSERT_NE(seen, nullptr);
        EXPECT_EQ(seen->role(), QAccessible::Button);
        EXPECT_FALSE(seen->text(QAccessible::Name).isEmpty());
    }
}

double luminanceOf(const QColor& color) {
    const auto linear = [](float v) {
        return v <= 0.04045F ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) + 0.0722 * linear(color.blueF());
}
QColor over(const QColor& ground, const QColor& veil) {
    const float a = veil.alphaF();
    return QColor::fromRgbF(veil.redF() * a + ground.redF() * (1 - a),
                            veil.greenF() * a + ground.greenF() * (1 - a),
                            veil.blueF() * a + ground.blueF() * (1 - a));
}
double contrastOf(const QColor& a, const QColor& b) {
    const double la = luminanceOf(a), lb = luminanceOf(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

TEST_F(MenuPanelTest, allTextReadsInBothLooks) {
    using Appearance::StatusColor;
    for (const Theme theme : {Theme::light, Theme::dark}) {
        Appearance::apply(theme);
        const QPalette palette = QApplication::palette();
        const std::vector<QColor> inks{palette.color(QPalette::WindowText), Style::faintInk(palette),
                                       Style::inkOf(StatusColor::busy, palette),
                                       Style::inkOf(StatusColor::good, palette),
                                       Style::inkOf(StatusColor::bad, palette)};
        const QColor window = palette.color(QPalette::Window), card = Style::cardGround(palette);
        for (const QColor& ground : {window, over(window, Style::hoverGround(palette)), card}) {
            for (const QColor& ink : inks)
                EXPECT_GE(contrastOf(ink, ground), 4.5)
                    << ink.name().toStdString() << " on " << ground.name().toStdString();
            EXPECT_GE(contrastOf(palette.color(QPalette::Highlight), ground), 3) << "the focus ring";
        }
    }
}

}  // namespace
}  // namespace velmora
