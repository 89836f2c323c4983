#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "Host/HostSignaling.h"
#include "Shared/ObserverList.h"
#include "Shared/RemoteDevices.h"

namespace velmora {

/// What the menu panel shows of the application beside the identity and the devices, and what its controls
/// do. The panel decides nothing: each control calls an action, which does nothing until the application has
/// set it. Lives on the main queue as long as the application.
class MenuModel {
public:
    struct State {
        bool serverRunning = false;  // the server has a listener
        std::string serverStatus = "Stopped";
        std::optional<std::string> connectedViewer;  // the name of the viewer that is streaming now
        HostSignaling::Status idStatus;
        bool operator==(const State&) const = default;
    };
    using Action = std::function<void()>;
    using DeviceAction = std::function<void(const RemoteDevices::Device&)>;
    struct Actions {
        Action startServer = [] {};
        Action stopServer = [] {};
        Action disconnectViewer = [] {};
        Action newPassword = [] {};
        Action changePassword = [] {};
        DeviceAction connect = [](const RemoteDevices::Device&) {};
        DeviceAction removeDevice = [](const RemoteDevices::Device&) {};
        Action addDevice = [] {};
        Action openHelp = [] {};
        Action quit = [] {};
    };

    const State& state() const { return state_; }
    /// Replaces the state; the observers are told if that changed anything.
    void setState(State state) {
        if (state == state_) return;
        state_ = std::move(state);
        observers_.notify();
    }

    Actions actions;

    [[nodiscard]] ObserverList::Token observe(ObserverList::Observer observer) {
        return observers_.add(std::move(observer));
    }

private:
    State state_;
    ObserverList observers_;
};

}  // namespace velmora
