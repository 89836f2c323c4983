#include <QAccessible>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

#include "App/AddDeviceWindow.h"
#include "App/AlertWindow.h"
#include "App/ChangePasswordWindow.h"
#include "App/QtAlerts.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

class SmallWindowsTest : public WidgetTest {
protected:
    /// Types as a keyboard does, or pastes in one piece.
    static void type(QWidget& window, const char* field, const char* text) {
        QTest::keyClicks(window.findChild<QLineEdit*>(QLatin1String(field)), QString::fromUtf8(text));
    }
    static void paste(QWidget& window, const char* field, const char* text) {
        window.findChild<QLineEdit*>(QLatin1String(field))->insert(QString::fromUtf8(text));
    }
    static QString text(const QWidget& window, const char* field) {
        return window.findChild<QLineEdit*>(QLatin1String(field))->text();
    }
    static QPushButton& button(const QWidget& window, const char* name) {
        return *window.findChild<QPushButton*>(QLatin1String(name));
    }
    static std::vector<std::string> facesOf(const QWidget& window) {
        std::vector<std::string> faces;
        for (const auto* const each : window.findChildren<QPushButton*>())
            faces.push_back(each->text().toStdString());
        return faces;
    }
    static QPushButton& face(const QWidget& window, const char* words) {
        for (auto* const each : window.findChildren<QPushButton*>())
            if (each->text() == QLatin1String(words)) return *each;
        throw std::runtime_error(words);
    }

    VirtualTime time_;
    VirtualQueue main_{time_, "main"};
};

// Adding a device

TEST_F(SmallWindowsTest, aDeviceIsAddedOnlyWithNineAndSixDigitsThatAreNotOurs) {
    struct Case {
        const char *hostID, *password;
        bool isGood;
        const char *hostIdWords, *passwordWords;
    };
    const Case cases[] = {
        {"", "", false, "Enter the Host ID: 9 digits.", "Enter the password: 6 digits."},
        {"12345678", "123456", false, "A Host ID has 9 digits; this has 8.", ""},
        {"Host ID: 123-456-789", "12 34 56", true, "", ""},
        {"1234567890", "123456", false, "A Host ID has 9 digits; this has 10.", ""},
        {"987 654 321", "123456", false, "This is the Host ID of this Mac itself.", ""},
        {"123456789", "1234567", false, "", "A password has 6 digits; this has 7."},
        {"١٢٣٤٥٦٧٨٩", "०००००१", true, "", ""},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.hostID);
        AddDeviceWindow window(main_, {.ownHostID = "987654321"});
        paste(window, "hostID", each.hostID);
        paste(window, "password", each.password);
        EXPECT_EQ(window.problems().hostID.toStdString(), each.hostIdWords);
        EXPECT_EQ(window.problems().password.toStdString(), each.passwordWords);
        EXPECT_EQ(button(window, "add").isEnabled(), each.isGood);
        EXPECT_EQ(button(window, "connect").isEnabled(), each.isGood);
    }
}

TEST_F(SmallWindowsTest, aHostIdIsGroupedWhileItIsTypedAndMendedInTheMiddle) {
    AddDeviceWindow window(main_, {});
    type(window, "hostID", "1234x567");
    EXPECT_EQ(text(window, "hostID"), "123 456 7");
    auto& field = *window.findChild<QLineEdit*>(QStringLiteral("hostID"));
    field.setCursorPosition(3);
    QTest::keyClick(&field, Qt::Key_Delete);  // the 4, not the blank that would come back
    EXPECT_EQ(text(window, "hostID"), "123 567");
    field.setCursorPosition(4);
    QTest::keyClick(&field, Qt::Key_Backspace);
    QTest::keyClick(&field, Qt::Key_Backspace);
    EXPECT_EQ(text(window, "hostID"), "125 67");
    QTest::keyClicks(&field, QStringLiteral("34"));
    EXPECT_EQ(text(window, "hostID"), "123 456 7");
}

TEST_F(SmallWindowsTest, whatIsConfirmedIsToldWhenTheWindowHasClosed) {
    auto window = std::make_unique<AddDeviceWindow>(
        main_,
        AddDeviceWindow::Opening{.name = " Attic\n ", .hostID = "123456789", .ownHostID = "987654321"});
    std::vector<AddDeviceWindow::Entry> told;
    window->onConfirm = [&](const AddDeviceWindow::Entry& entry) {
        EXPECT_FALSE(window->isVisible());
        told.push_back(entry);
        window.reset();
    };
    window->present();
    turnEvents();
    EXPECT_TRUE(window->findChild<QLineEdit*>(QStringLiteral("password"))->hasFocus());
    QTest::keyClick(window.get(), Qt::Key_Return);
    EXPECT_TRUE(window->isVisible()) << "there is no password yet";
    type(*window, "password", "000042");
    QTest::keyClick(window.get(), Qt::Key_Return);
    time_.settle();
    EXPECT_EQ(told, (std::vector<AddDeviceWindow::Entry>{
                        {.name = "Attic", .hostID = "123456789", .password = "000042", .connect = true}}));
}

// For those who hear the screen and those who use no pointer.
TEST_F(SmallWindowsTest, everyControlHasANameAndIsReachedByKeyInItsOrder) {
    AddDeviceWindow add(main_, {});
    paste(add, "hostID", "123456789");
    paste(add, "password", "123456");
    ChangePasswordWindow password(main_, "012345");
    AlertWindow alert(main_, {.title = "a", .text = std::string(20'000, 'x'), .buttons = {"One", "Two"}});
    using Names = std::vector<std::string>;
    const std::pair<QDialog*, Names> windows[] = {
        {&add, {"Host ID", "Password", "Show password", "Name", "Cancel", "Add", "Add and Connect"}},
        {&password, {"Password", "Generate", "Cancel", "Save"}},
        {&alert, {"One", "Text", "Two"}}};
    for (const auto& [window, names] : windows) {
        window->show();
        turnEvents();
        Names reached;
        std::set<QWidget*> seen;
        for (QWidget* at = window->focusWidget(); seen.insert(at).second; at = window->focusWidget()) {
            reached.push_back(
                QAccessible::queryAccessibleInterface(at)->text(QAccessible::Name).toStdString());
            QTest::keyClick(at, Qt::Key_Tab);
            time_.advanceBy(AlertWindow::deafTime);
        }
        EXPECT_EQ(reached, names);
    }
}

// Changing the password

TEST_F(SmallWindowsTest, aPasswordIsSavedWithExactlySixDigitsAndOneIsGenerated) {
    ChangePasswordWindow window(main_, "012345");
    std::vector<std::string> saved;
    window.onSave = [&](const std::string& password) { saved.push_back(password); };
    window.present();
    EXPECT_EQ(text(window, "password"), "012345");
    type(window, "password", "12a34");  // replaces it: it is selected
    EXPECT_EQ(text(window, "password"), "1234");
    EXPECT_FALSE(button(window, "save").isEnabled());
    std::set<QString> made;
    for (int i = 0; i < 20; ++i) {
        button(window, "generate").click();
        EXPECT_EQ(text(window, "password").size(), 6);
        made.insert(text(window, "password"));
    }
    EXPECT_GT(made.size(), 15u);
    button(window, "save").click();
    EXPECT_FALSE(window.isVisible());
    time_.settle();
    EXPECT_EQ(saved, std::vector{text(window, "password").toStdString()});
}

// Alerts

TEST_F(SmallWindowsTest, alertsComeOneAtATimeInTheirOrder) {
    QtAlerts alerts(main_);
    std::vector<std::string> answers;
    const auto ask = [&](const char* title, std::vector<std::string> buttons) {
        alerts.show({.title = title, .buttons = std::move(buttons)},
                    [&, title](std::size_t button) { answers.push_back(title + std::to_string(button)); });
    };
    ask("a", {"Try Again", "Cancel"});
    ask("b", {"Open", "Maybe", "Later"});
    alerts.show({.title = "c"});
    alerts.show({.title = "c"});
    alerts.show({.title = "b", .buttons = {"Open", "Maybe", "Later"}});

    ASSERT_TRUE(alerts.window());
    EXPECT_EQ(alerts.window()->accessibleName(), "a");
    EXPECT_TRUE(face(*alerts.window(), "Try Again").isDefault());
    const auto press = [&](Qt::Key key) {
        QTest::keyClick(alerts.window()->focusWidget(), key);
        time_.settle();
    };
    press(Qt::Key_Return);  // meant for another window
    press(Qt::Key_Escape);
    EXPECT_TRUE(answers.empty());
    time_.advanceBy(AlertWindow::deafTime);
    press(Qt::Key_Return);
    EXPECT_EQ(alerts.window()->accessibleName(), "b");
    time_.advanceBy(AlertWindow::deafTime);
    press(Qt::Key_Escape);
    EXPECT_EQ(answers, (std::vector<std::string>{"a0", "b2"}));
    EXPECT_EQ(alerts.window()->accessibleName(), "c");
    EXPECT_EQ(facesOf(*alerts.window()), std::vector<std::string>{"OK"});
    alerts.window()->close();
    time_.settle();
    EXPECT_FALSE(alerts.window());
}

TEST_F(SmallWindowsTest, aHostsWordsNeitherStretchAnAlertNorCommandIt) {
    const std::string ordinary = "<b>Attic</b>\nx\x1b[2J";
    std::string longest;
    for (int i = 0; i < 2000; ++i) longest += "ü";
    AlertWindow small(main_, {.title = ordinary, .text = "one\n\ntwo"});
    AlertWindow large(main_, {.title = longest + " is locked", .text = longest + "\n\n" + longest});
    small.present();
    large.present();
    turnEvents();
    EXPECT_LT(large.width(), small.width() + 50);
    EXPECT_LT(large.height(), 600);
    EXPECT_EQ(small.accessibleName(), "<b>Attic</b> x [2J");
}

// An action that an alert's choice sets off may end the program's alerts altogether.
TEST_F(SmallWindowsTest, aChoiceMayEndTheAlerts) {
    auto alerts = std::make_unique<QtAlerts>(main_);
    int chosen = 0;
    alerts->show({.title = "a"}, [&](std::size_t) {
        ++chosen;
        alerts.reset();
    });
    alerts->show({.title = "b"}, [&](std::size_t) { ++chosen; });
    face(*alerts->window(), "OK").click();
    time_.settle();
    EXPECT_EQ(chosen, 1);
}

}  // namespace
}  // namespace velmora
