#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "App/MenuModel.h"
#include "App/StatusItem.h"
#include "Platform/PanelDesktop.h"
#include "Shared/HostIdentity.h"
#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Opens the menu panel at the tray item and closes it. On a desktop without a tray the panel is an ordinary
/// window instead, which opens by itself and stays within reach: closing it puts it into the task bar. One
/// per application, on the main queue; needs a QApplication. Takes the callbacks of the status item.
class MenuPanelController {
public:
    struct Parameters {
        /// How long a desktop that is starting may take to show its tray before the window opens by itself;
        /// none: it opens only when it is asked for.
        std::optional<std::chrono::milliseconds> trayPatience{3000};
        /// A click on the item first takes the focus from the panel, which closes it, and must not open it
        /// again; people click twice in less, but rarely to see the same panel again.
        std::chrono::milliseconds reopenGuard{250};
        PanelDesktop* desktop = nullptr;  // outlives us; none: only the loss of the focus closes the panel
    };
    /// All outlive us.
    MenuPanelController(MenuModel& model, HostIdentity& identity, RemoteDevices& devices,
                        StatusItem& statusItem, Queue& main, const Parameters& parameters);
    MenuPanelController(MenuModel& model, HostIdentity& identity, RemoteDevices& devices,
                        StatusItem& statusItem, Queue& main)
        : MenuPanelController(model, identity, devices, statusItem, main, Parameters{}) {}
    ~MenuPanelController();
    MenuPanelController(const MenuPanelController&) = delete;
    MenuPanelController& operator=(const MenuPanelController&) = delete;

    /// Called each time the panel has opened.
    std::function<void()> onShow;

    /// What a click on the tray item does.
    void toggle();
    /// Opens the panel, or brings it to the front.
    void show();
    /// Closes the panel before something else opens. An ordinary window stays: nobody could open it again.
    void hide();
    bool isVisible() const;

private:
    class Panel;

    void openAtItem();
    void openAsWindow();
    void close();
    void closeUnlessActive();
    void closeIfPointerIsElsewhere();
    void trayChanged();

    StatusItem& statusItem_;
    Queue& main_;
    const Parameters parameters_;
    const std::unique_ptr<Panel> panel_;
    TimerToken patience_;    // held while there is neither tray nor window
    TimerToken justClosed_;  // held for a moment after the panel lost the focus
    Liveness liveness_;
};

}  // namespace velmora
