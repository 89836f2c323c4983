#include "Tools/View/CompositionView.h"

#include <QApplication>
#include <iostream>
#include <list>
#include <memory>
#include <utility>

#include "App/AboutWindow.h"
#include "App/CompositionViewer.h"
#include "App/DebugLogWindow.h"
#include "App/QtAlerts.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/System/FreedMemory.h"
#include "Platform/Linux/Window/X11KeyboardWatch.h"
#include "VelmoraKit/Core/Utf8.h"
#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/Logo.h"
#include "Viewer/Window/MainMenu.h"
#include "Viewer/Window/ViewerSession.h"

namespace velmora {

namespace {

/// A host chooses some of these words.
void complain(const ConnectionError& error) {
    constexpr std::size_t longest = 2000;
    for (const std::string& words : {error.title, error.message, error.suggestion}) {
        if (!words.empty()) std::cerr << printableLine(words, longest) << '\n';
    }
    std::cerr.flush();
}

}  // namespace

int runView(const ViewOptions& options, const SignalingUrl& rendezvous) {
    // Qt would abort.
    if (!qEnvironmentVariableIsSet("DISPLAY") && !qEnvironmentVariableIsSet("WAYLAND_DISPLAY") &&
        !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) {
        std::cerr << "velmora-view: there is no screen here: neither DISPLAY nor WAYLAND_DISPLAY is set\n";
        return 1;
    }
    if (!qEnvironmentVariableIsSet("DISPLAY") && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "wayland");  // by itself it would go by the name of the session
    returnFreedPictures();
    QuitSignals quitSignals;
    int argc = 1;
    char program[] = "velmora-view";
    char* argv[] = {program, nullptr};
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QtMainQueue main;
    SharedServices shared(main, rendezvous);
    ViewerServices services(shared);
    introduceApplication();
    Appearance::apply(ThemePreferences::saved(shared.preferences));

    DebugLogWindow diary({DebugLog::shared(), main, shared.preferences, *shared.pasteboard});
    AboutWindow about;
    QtAlerts alerts(main);
    const MainMenu::Application menu{
        .about = [&about] { about.present(); },
        .quit = [] { QCoreApplication::quit(); },
        .showDebugLog = [&diary] { diary.present(DebugLogWindow::Focus::take); }};

    int status = 0;
    std::list<std::unique_ptr<ViewerSession>> sessions;
    for (ViewerOptions host : options.hosts) {
        host.clientName = shared.machine.localizedName();
        auto sessionServices = services.forSession();
        sessionServices.showDebugLog = menu.showDebugLog;
        sessionServices.showAlert = [&alerts](const std::string& title, const std::string& text) {
            alerts.show({.title = title, .text = text});
        };
        auto& session = *sessions.emplace_back(
            std::make_unique<ViewerSession>(std::move(host), std::move(sessionServices)));
        session.window().setMenuBar(*new MainMenu(session, menu));
        session.onClose = [&,
                           place = std::prev(sessions.end())](const std::optional<ConnectionError>& error) {
            if (error) {
                complain(*error);
                status = 1;
            }
            sessions.erase(place);
            if (sessions.empty()) QCoreApplication::quit();
        };
    }
    const X11KeyboardWatch keyboard([&sessions] {
        for (const auto& session : sessions) session->keyboardTaken();
    });
    if (ViewerPreferences::openDebugLogOnConnect(shared.preferences))
        diary.present(DebugLogWindow::Focus::leave);
    for (const auto& session : sessions) session->start();
    quitSignals.deliver(main, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    quitSignals.stop();
    sessions.clear();
    return status;
}

}  // namespace velmora
