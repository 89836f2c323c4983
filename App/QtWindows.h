#pragma once

#include <functional>
#include <memory>
#include <string>

#include "App/Alerts.h"
#include "App/MenuPanelController.h"
#include "App/StatusItem.h"
#include "App/Windows.h"
#include "Platform/Pasteboard.h"
#include "Platform/PreferenceStore.h"
#include "Viewer/Window/ViewerSession.h"

namespace velmora {

class AboutWindow;
class AddDeviceWindow;
class ChangePasswordWindow;
class DebugLogWindow;

/// The application's windows, each made when it is first wanted. Needs a QApplication, which outlives it.
class QtWindows final : public Windows {
public:
    /// All outlive the windows.
    struct Services {
        Queue& main;
        PreferenceStore& preferences;
        Pasteboard& pasteboard;
        Alerts& alerts;
        StatusItem& statusItem;
        std::function<ViewerSession::Services()> forSession;
        MenuPanelController::Parameters panel;
    };
    QtWindows(const Contents& contents, const Services& services);
    ~QtWindows() override;

    std::unique_ptr<Viewer> makeViewer(ViewerOptions options) override;
    void showPanel() override { panel_.show(); }
    void hidePanel() override { panel_.hide(); }
    void openAddDevice(const std::string& name, const std::string& hostID,
                       std::function<void(const NewDevice&)> confirm) override;
    void openChangePassword(const std::string& current,
                            std::function<void(const std::string&)> save) override;
    void showDebugLog(Focus focus) override;
    void applyTheme(Theme theme) override;

private:
    class Session;
    void showAbout();

    const Services services_;
    HostIdentity& identity_;
    MenuPanelController panel_;
    std::unique_ptr<AboutWindow> about_;
    std::unique_ptr<AddDeviceWindow> addDevice_;
    std::unique_ptr<ChangePasswordWindow> changePassword_;
    std::unique_ptr<DebugLogWindow> debugLog_;
};

}  // namespace velmora
