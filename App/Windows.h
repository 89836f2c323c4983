#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "App/MenuModel.h"
#include "Shared/ConnectionError.h"
#include "Shared/HostIdentity.h"
#include "Shared/Preferences.h"
#include "Viewer/Session/ViewerOptions.h"

namespace velmora {

/// What the application has on the screen, alerts aside. It only shows: what happens then is the delegate's
/// affair. Lives on the main queue.
class Windows {
public:
    /// What the panel shows; all outlive the windows.
    struct Contents {
        MenuModel& menuModel;
        HostIdentity& identity;
        RemoteDevices& devices;
    };
    /// A window on a host. Destroying it says goodbye there.
    class Viewer {
    public:
        virtual ~Viewer() = default;
        /// Once, as the last thing done: it may destroy the viewer. None: the person closed the window.
        std::function<void(const std::optional<ConnectionError>&)> onClose;
        /// Shows the window and connects.
        virtual void start() = 0;
        /// Says goodbye there and leaves the window alone: its screen may have gone.
        virtual void disconnect() = 0;
        virtual void bringForward() = 0;
        /// Another program has the keyboard now, though the window keeps the focus.
        virtual void keyboardTaken() = 0;
    };
    /// A device as somebody entered it.
    struct NewDevice {
        std::string name;      // may be empty
        std::string hostID;    // nine digits
        std::string password;  // six digits
        bool connect = false;
    };
    enum class Focus { taken, left };

    virtual ~Windows() = default;

    // Set before the first window opens.
    std::function<void()> onPanelShown;    // each time
    std::function<void()> onOpenSettings;  // the main menu asks for it, as for the next
    std::function<void()> onQuit;

    /// None where there is no display.
    virtual std::unique_ptr<Viewer> makeViewer(ViewerOptions options) = 0;

    virtual void showPanel() = 0;
    virtual void hidePanel() = 0;

    /// Replaces one that is open. `confirm` is called when the window has closed.
    virtual void openAddDevice(const std::string& name, const std::string& hostID,
                               std::function<void(const NewDevice&)> confirm) = 0;
    /// Replaces one that is open. `save` is called with six digits, when the window has closed.
    virtual void openChangePassword(const std::string& current,
                                    std::function<void(const std::string&)> save) = 0;
    virtual void showDebugLog(Focus focus) = 0;
    virtual void applyTheme(Theme theme) = 0;
};

/// Without a display nothing is shown, and nobody is there to ask for a window.
class NoWindows final : public Windows {
public:
    std::unique_ptr<Viewer> makeViewer(ViewerOptions) override { return nullptr; }
    void showPanel() override {}
    void hidePanel() override {}
    void openAddDevice(const std::string&, const std::string&,
                       std::function<void(const NewDevice&)>) override {}
    void openChangePassword(const std::string&, std::function<void(const std::string&)>) override {}
    void showDebugLog(Focus) override {}
    void applyTheme(Theme) override {}
};

}  // namespace velmora
