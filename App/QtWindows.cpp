#include "App/QtWindows.h"

#include <utility>

#include "App/AboutWindow.h"
#include "App/AddDeviceWindow.h"
#include "App/ChangePasswordWindow.h"
#include "App/DebugLogWindow.h"
#include "App/WindowPlacing.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/MainMenu.h"

namespace velmora {

/// A viewer window with the application's menus.
class QtWindows::Session final : public Viewer {
public:
    Session(ViewerOptions options, ViewerSession::Services services, MainMenu::Application application)
        : session_(std::move(options), std::move(services)) {
        session_.window().setMenuBar(*new MainMenu(session_, std::move(application)));
        session_.onClose = [this](const std::optional<ConnectionError>& error) {
            if (const auto notify = onClose) notify(error);
        };
    }
    void start() override { session_.start(); }
    void disconnect() override { session_.disconnect(); }
    void bringForward() override { velmora::bringForward(session_.window()); }
    void keyboardTaken() override { session_.keyboardTaken(); }

private:
    ViewerSession session_;
};

QtWindows::QtWindows(const Contents& contents, const Services& services)
    : services_(services),
      identity_(contents.identity),
      panel_(contents.menuModel, contents.identity, contents.devices, services.statusItem, services.main,
             services.panel) {
    panel_.onShow = [this] {
        if (const auto notify = onPanelShown) notify();
    };
}

QtWindows::~QtWindows() = default;

std::unique_ptr<Windows::Viewer> QtWindows::makeViewer(ViewerOptions options) {
    ViewerSession::Services services = services_.forSession();
    services.showDebugLog = [this] { showDebugLog(Focus::taken); };
    services.showAlert = [this](const std::string& title, const std::string& text) {
        services_.alerts.show({.title = title, .text = text});
    };
    return std::make_unique<Session>(std::move(options), services,
                                     MainMenu::Application{.about = [this] { showAbout(); },
                                                           .openSettings = onOpenSettings,
                                                           .quit = onQuit,
                                                           .showDebugLog = services.showDebugLog});
}

void QtWindows::openAddDevice(const std::string& name, const std::string& hostID,
                              std::function<void(const NewDevice&)> confirm) {
    addDevice_ = std::make_unique<AddDeviceWindow>(
        services_.main,
        AddDeviceWindow::Opening{.name = name, .hostID = hostID, .ownHostID = identity_.id()});
    addDevice_->onConfirm = [confirm = std::move(confirm)](const AddDeviceWindow::Entry& entry) {
        confirm({.name = entry.name,
                 .hostID = entry.hostID,
                 .password = entry.password,
                 .connect = entry.connect});
    };
    addDevice_->present();
}

void QtWindows::openChangePassword(const std::string& current, std::function<void(const std::string&)> save) {
    changePassword_ = std::make_unique<ChangePasswordWindow>(services_.main, current);
    changePassword_->onSave = std::move(save);
    changePassword_->present();
}

void QtWindows::showDebugLog(Focus focus) {
    if (!debugLog_) {
        debugLog_ =
            std::make_unique<DebugLogWindow>(DebugLogWindow::Services{.log = DebugLog::shared(),
                                                                      .main = services_.main,
                                                                      .preferences = services_.preferences,
                                                                      .pasteboard = services_.pasteboard});
    }
    debugLog_->present(focus == Focus::taken ? DebugLogWindow::Focus::take : DebugLogWindow::Focus::leave);
}

void QtWindows::showAbout() {
    if (!about_) about_ = std::make_unique<AboutWindow>();
    about_->present();
}

void QtWindows::applyTheme(Theme theme) {
    Appearance::apply(theme);
}

}  // namespace velmora
