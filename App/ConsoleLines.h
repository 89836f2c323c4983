#pragma once

#include <functional>
#include <string>

#include "App/Alerts.h"
#include "App/MenuModel.h"
#include "Shared/HostIdentity.h"
#include "Shared/ObserverList.h"

namespace velmora {

/// Lines for whoever started the program from a terminal or a script: how to reach this machine, and how
/// things stand. Each comes when it changes. Lives on the main queue.
class ConsoleLines final : public Alerts {
public:
    explicit ConsoleLines(std::function<void(const std::string& line)> write) : write_(std::move(write)) {}

    /// Tells how things stand once the application has started, and every change from then on. Once; nothing
    /// is told any more when both have gone.
    void follow(HostIdentity& identity, MenuModel& menuModel);

    /// Alerts where there is no display: nobody chooses, and so it is the last button.
    void show(Alert alert, std::function<void(std::size_t button)> chosen) override;

    void tell(const std::string& line);

private:
    void tellIdentity(const HostIdentity& identity);
    void tellState(const MenuModel::State& state);
    void tellPresence(const HostSignaling::Status& status);

    const std::function<void(const std::string&)> write_;
    std::string toldIdentity_, toldStatus_, toldPresence_;
    ObserverList::Token identityObserver_, menuObserver_;
};

}  // namespace velmora
