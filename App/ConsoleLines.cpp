#include "App/ConsoleLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

void ConsoleLines::follow(HostIdentity& identity, MenuModel& menuModel) {
    toldStatus_ = "Stopped";
    if (!menuModel.state().serverRunning)
        tell("Stopped (the server does not start on launch: host.startOnLaunch is off)");
    identityObserver_ = identity.observe([this, &identity] { tellIdentity(identity); });
    menuObserver_ = menuModel.observe([this, &menuModel] { tellState(menuModel.state()); });
    tellIdentity(identity);
    tellState(menuModel.state());
}

void ConsoleLines::tellIdentity(const HostIdentity& identity) {
    if (identity.state() == HostIdentity::State::loading) return;
    const std::string id = HostIdentity::grouped(identity.id());
    const std::string line =
        identity.isReady()
            ? fmt::format("Host ID {} · password {}", id, HostIdentity::grouped(identity.password()))
            : fmt::format("Host ID {} · the password store does not answer yet", id);
    if (line != std::exchange(toldIdentity_, line)) tell(line);
}

void ConsoleLines::tellState(const MenuModel::State& state) {
    // The line changes every second while a viewer is connected: the first of them says it all.
    const std::string gist = state.serverStatus.substr(0, state.serverStatus.find(" · "));
    if (gist != std::exchange(toldStatus_, gist)) tell(state.serverStatus);
    tellPresence(state.idStatus);
}

void ConsoleLines::tellPresence(const HostSignaling::Status& status) {
    using Kind = HostSignaling::Status::Kind;
    std::string line;
    switch (status.kind) {
        case Kind::off:
        case Kind::connecting:  // again and again while the service is away: the outcome is what counts
            return;
        case Kind::online:
            line = "Online · Reachable from anywhere with this ID and password";
            break;
        case Kind::offline:
            line = fmt::format("Offline · {}", status.reason);
            break;
    }
    if (line != std::exchange(toldPresence_, line)) tell(line);
}

void ConsoleLines::show(Alert alert, std::function<void(std::size_t)> chosen) {
    tell(fmt::format("⚠︎ {} · {}", alert.title, alert.text));
    if (chosen && !alert.buttons.empty()) chosen(alert.buttons.size() - 1);
}

void ConsoleLines::tell(const std::string& line) {
    constexpr std::size_t longest = 500;  // a viewer's name may be anything
    if (write_) write_(printableLine(line, longest));
}

}  // namespace velmora
