#include "App/HostApplication.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "Shared/ServerSettings.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

HostApplication::HostApplication(const Services& services)
    : main_(services.server.main),
      preferences_(services.preferences),
      identity_(services.preferences, services.keychain, services.server.main, services.worker),
      server_(services.server, ServerSettings::load(services.preferences)),
      signaling_(services.rendezvous, {.identity = identity_,
                                       .server = HostSignaling::Server::of(server_),
                                       .sockets = services.sockets,
                                       .probes = services.probes,
                                       .addresses = services.addresses,
                                       .machine = services.server.machine,
                                       .main = services.server.main}) {
    server_.identity = [this]() -> std::optional<HostCredentials> {
        if (!identity_.isReady()) return HostCredentials{identity_.id(), std::nullopt};
        return HostCredentials{identity_.id(), identity_.password()};
    };
    server_.onStatus = [this](const std::string& text, bool) {
        // The line changes every second while a viewer is connected: the first of them says it all.
        const std::string gist = text.substr(0, text.find(" · "));
        if (gist != std::exchange(toldStatus_, gist)) tell(text);
    };
    signaling_.onStatus = [this](const HostSignaling::Status& status) { tellPresence(status); };
    signaling_.onAdminKick = [this] { server_.disconnect(); };
    signaling_.onSecurityNotice = [this](const std::string& text) {
        tell(fmt::format("⚠︎ Someone is guessing this Mac's password · {}", text));
    };
    identityObserver_ = identity_.observe([this] { identityChanged(); });
}

void HostApplication::start() {
    wantsServer_ = server_.settings.startOnLaunch;
    if (!wantsServer_) tell("Stopped (the server does not start on launch: host.startOnLaunch is off)");
    identityChanged();
}

void HostApplication::identityChanged() {
    tellIdentity();
    // A host whose password cannot be read would refuse everybody: it listens once it can be.
    if (!identity_.isReady() || !std::exchange(wantsServer_, false)) return;
    server_.start();
    signaling_.start();
}

void HostApplication::quit() {
    if (std::exchange(isQuitting_, true)) return;
    wantsServer_ = false;
    const bool hasViewer = server_.connectedViewerName().has_value();
    signaling_.stop();
    server_.stop();
    preferences_.flush();
    goodbye_ = main_.after(hasViewer ? HostClock::duration(goodbyeTime) : HostClock::duration(0), [this] {
        if (const auto notify = onQuit) notify();
    });
}

void HostApplication::tellIdentity() {
    const std::string line =
        identity_.isReady() ? fmt::format("Host ID {} · password {}", HostIdentity::grouped(identity_.id()),
                                          HostIdentity::grouped(identity_.password()))
                            : fmt::format("Host ID {} · the password store does not answer yet",
                                          HostIdentity::grouped(identity_.id()));
    if (identity_.state() == HostIdentity::State::loading) return;
    if (line != std::exchange(toldIdentity_, line)) tell(line);
}

void HostApplication::tellPresence(const HostSignaling::Status& status) {
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

void HostApplication::tell(const std::string& line) {
    constexpr std::size_t longest = 500;  // a viewer's name may be anything
    if (onLine) onLine(printableLine(line, longest));
}

}  // namespace velmora
