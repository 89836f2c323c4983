#include "Tools/Pictures/WindowPictures.h"

#include <QAbstractButton>
#include <QLineEdit>
#include <QPushButton>

#include "App/AboutWindow.h"
#include "App/AddDeviceWindow.h"
#include "App/AlertWindow.h"
#include "App/ChangePasswordWindow.h"
#include "App/DebugLogWindow.h"
#include "Shared/ConnectionError.h"
#include "Testing/FakePasteboard.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/VirtualQueue.h"

namespace velmora {

namespace {

QLineEdit& field(QWidget& window, const char* name) {
    return *window.findChild<QLineEdit*>(QLatin1String(name));
}

// Forms

void takeForms(PictureFolder& folder) {
    VirtualTime time;
    VirtualQueue main(time);
    const std::string own = "987654321";
    const auto take = [&](const char* name, const AddDeviceWindow::Opening& opening, auto fill) {
        AddDeviceWindow window(main, opening);
        window.present();
        fill(window);
        folder.take(window, name);
    };
    take("add-empty", {.ownHostID = own}, [](QWidget&) {});
    take("add-typing", {.ownHostID = own}, [](QWidget& window) {
        field(window, "name").setText(QStringLiteral("Attic"));
        field(window, "hostID").setFocus();
        field(window, "hostID").insert(QStringLiteral("1234"));
    });
    take("add-wrong", {.ownHostID = own}, [](QWidget& window) {
        field(window, "hostID").insert(QStringLiteral("987 654 321"));
        field(window, "password").insert(QStringLiteral("1234567"));
    });
    take("add-ready", {.ownHostID = own}, [](QWidget& window) {
        field(window, "name").setText(QStringLiteral("Attic"));
        field(window, "hostID").insert(QStringLiteral("123456789"));
        field(window, "password").setFocus();
        field(window, "password").insert(QStringLiteral("123456"));
        for (auto* const button : window.findChildren<QAbstractButton*>())
            if (button->accessibleName() == QLatin1String("Show password")) button->click();
    });
    take("add-known", {.name = "Anna's Laptop", .hostID = "123456789", .ownHostID = own}, [](QWidget&) {});
    take("add-long", {.name = std::string(2000, 'w'), .hostID = "123456789", .ownHostID = own},
         [](QWidget&) {});

    ChangePasswordWindow password(main, "042137");
    password.present();
    folder.take(password, "password");
    field(password, "password").setText(QStringLiteral("0421"));
    folder.take(password, "password-short");
    AboutWindow about;
    about.present();
    folder.take(about, "about");
}

// The diary

void takeDiary(PictureFolder& folder) {
    VirtualTime time;
    VirtualQueue main(time);
    FakePreferenceStore preferences;
    FakePasteboard pasteboard(main);
    DebugLog log;
    DebugLogWindow window({log, main, preferences, pasteboard});
    window.present(DebugLogWindow::Focus::take);
    folder.take(window, "diary-empty");
    using enum DebugLog::Source;
    log.log("Velmora started", server);
    log.log("Server listening on port 47272, advertised as Workbench", server);
    log.log("Connecting to Anna's Laptop (123 456 789)", viewer);
    log.log("Signaling connected; sending Host ID and password", viewer);
    for (int i = 0; i < 12; ++i)
        log.log("ladder[7] relay -> direct: rtt " + std::to_string(30 + i) + " ms < 52 ms", viewer);
    log.log("⚠︎ Denied: " + std::string(300, 'x'), server);
    log.log(
        "A longer line that says why the picture was switched to a lower bit rate just now, with all the "
        "numbers that led to it: 20.0 Mbit/s -> 12.5 Mbit/s, delay 140 ms, loss 2.1 %",
        viewer);
    time.advanceBy(DebugLogWindow::showInterval);
    folder.take(window, "diary");
}

// Alerts

Alert alertFor(const ConnectionError& error, std::vector<std::string> buttons) {
    std::string text = error.message;
    if (!error.suggestion.empty()) text += "\n\n" + error.suggestion;
    return {
        .title = error.title,
        .text = std::move(text),
        .style = error.kind == ConnectionError::Kind::locked ? Alert::Style::critical : Alert::Style::warning,
        .buttons = std::move(buttons)};
}

void takeAlerts(PictureFolder& folder) {
    VirtualTime time;
    VirtualQueue main(time);
    const std::string name = "Anna's Laptop", longName(2000, 'w');
    const std::pair<const char*, Alert> alerts[] = {
        {"alert-password", alertFor(ConnectionError::wrongPassword(name), {"Enter Password…", "Cancel"})},
        {"alert-locked", alertFor(ConnectionError::locked(name), {"OK"})},
        {"alert-offline", alertFor(ConnectionError::offline(name), {"Try Again", "Cancel"})},
        {"alert-unreachable", alertFor(ConnectionError::unreachable(name), {"Try Again", "Cancel"})},
        {"alert-lost", alertFor(ConnectionError::connectionLost(name), {"Try Again", "Cancel"})},
        {"alert-long", alertFor(ConnectionError::offline(longName), {"Try Again", "Cancel"})},
        {"alert-network",
         {.title = "Velmora can't accept viewers yet",
          .text =
              "macOS is blocking Velmora from the local network. Turn on Velmora under System Settings → "
              "Privacy & Security → Local Network, then quit and reopen Velmora.\n\nmacOS asks again when "
              "the "
              "app's signature changes, for example the first build signed with your developer certificate.",
          .buttons = {"Open Local Network Settings", "Later"}}},
        {"alert-security",
         {.title = "Someone is guessing this Mac's password",
          .text = "After 5 wrong passwords nobody can connect to it for an hour."}},
        {"alert-permissions",
         {.title = "Velmora permissions",
          .text = "Screen Recording: granted\nAccessibility: missing — needed for remote mouse and "
                  "keyboard\n\nOnly "
                  "needed on the Mac you want to control. After granting Screen Recording, quit and reopen "
                  "Velmora.",
          .style = Alert::Style::informational,
          .buttons = {"OK", "Open System Settings"}}},
    };
    for (const auto& [file, alert] : alerts) {
        AlertWindow window(main, alert);
        window.present();
        folder.take(window, file);
    }
}

}  // namespace

void takeWindowPictures(PictureFolder& folder) {
    takeForms(folder);
    takeDiary(folder);
    takeAlerts(folder);
}

}  // namespace velmora
