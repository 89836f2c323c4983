#include "App/AppDelegate.h"

#include <algorithm>
#include <array>
#include <utility>
#include <variant>

#include "Shared/Preferences.h"
#include "Shared/ServerSettings.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

AppDelegate::AppDelegate(const Services& services)
    : services_(services),
      main_(services.server.main),
      preferences_(services.preferences),
      identity_(services.preferences, services.keychain, services.server.main, services.worker),
      devices_({.preferences = services.preferences,
                .keychain = services.keychain,
                .discovery = services.server.discovery,
                .http = services.http,
                .main = services.server.main,
                .worker = services.worker,
                .rendezvous = services.rendezvous}),
      server_(services.server, ServerSettings::load(services.preferences)),
      signaling_(services.rendezvous, {.identity = identity_,
                                       .server = HostSignaling::Server::of(server_),
                                       .sockets = services.sockets,
                                       .probes = services.probes,
                                       .addresses = services.addresses,
                                       .machine = services.server.machine,
                                       .main = services.server.main}),
      windows_(services.makeWindows({menuModel_, identity_, devices_})) {
    windows_->onPanelShown = [this] { devices_.refreshStatus(); };
    windows_->onOpenSettings = [this] { openSettings(); };
    windows_->onQuit = [this] { quit(); };
    wireMenu();
    listenToServer();
    listenToSignaling();
    identityObserver_ = identity_.observe([this] { identityChanged(); });
}

void AppDelegate::start() {
    migrateViewerPreferences();
    windows_->applyTheme(ThemePreferences::saved(preferences_));
    preferenceObservation_ = preferences_.observe(main_, [this](const std::string& key) {
        if (key == PreferenceKeys::appTheme) windows_->applyTheme(ThemePreferences::saved(preferences_));
    });
    hostLog("Velmora started");
    if (server_.settings.startOnLaunch) startServer();
}

/// Once: what a person has changed since is not overwritten by what was.
void AppDelegate::migrateViewerPreferences() {
    namespace Keys = PreferenceKeys;
    if (preferences_.boolOr(Keys::migratedViewerPreferences, false)) return;
    preferences_.set(Keys::migratedViewerPreferences, true);
    const auto suite = services_.openViewerSuite();
    if (!suite) return;
    for (const auto key :
         {Keys::deviceID, Keys::screenMode, Keys::showStatsOverlay, Keys::openDebugLogOnConnect}) {
        if (preferences_.get(key)) continue;
        if (auto value = suite->get(key)) preferences_.set(key, *std::move(value));
    }
}

void AppDelegate::change(const std::function<void(MenuModel::State&)>& edit) {
    MenuModel::State state = menuModel_.state();
    edit(state);
    menuModel_.setState(std::move(state));
}

// The host

void AppDelegate::listenToServer() {
    server_.identity = [this]() -> std::optional<HostCredentials> {
        if (!identity_.isReady()) return HostCredentials{identity_.id(), std::nullopt};
        return HostCredentials{identity_.id(), identity_.password()};
    };
    server_.onStatus = [this](const std::string& text, bool isStreaming) {
        change([&](MenuModel::State& state) {
            state.serverStatus = text;
            state.serverRunning = server_.hasListener();
            state.connectedViewer = isStreaming ? server_.connectedViewerName() : std::nullopt;
        });
    };
    server_.onListenerBlocked = [this] {
        services_.alerts.show(
            {.title = "Velmora can't accept viewers yet",
             .text = "macOS is blocking Velmora from the local network. Turn on Velmora under System "
                     "Settings → Privacy & Security → Local Network, then quit and reopen Velmora.\n\n"
                     "macOS asks again when the app's signature changes, for example the first build "
                     "signed with your developer certificate."});
    };
}

void AppDelegate::listenToSignaling() {
    signaling_.onStatus = [this](const HostSignaling::Status& status) {
        change([&](MenuModel::State& state) { state.idStatus = status; });
    };
    signaling_.onAdminKick = [this] { server_.disconnect(); };
    signaling_.onSecurityNotice = [this](const std::string& text) {
        services_.alerts.show({.title = "Someone is guessing this Mac's password", .text = text});
    };
}

void AppDelegate::startServer() {
    if (isQuitting_) return;
    awaitsPassword_ = true;
    identityChanged();
    devices_.ownName = services_.server.machine.localizedName();
    devices_.ownHostID = identity_.id();
    devices_.rebuild();
    change([](MenuModel::State& state) { state.serverRunning = true; });
}

void AppDelegate::identityChanged() {
    if (!awaitsPassword_) return;
    // A host whose password cannot be read would refuse everybody: it listens once it can be.
    if (!identity_.isReady()) {
        if (identity_.state() != HostIdentity::State::unavailable) return;
        return change([](MenuModel::State& state) {
            state.serverStatus = "Waiting for this Mac's keychain to be unlocked";
        });
    }
    awaitsPassword_ = false;
    server_.start();
    signaling_.start();
}

void AppDelegate::stopServer() {
    awaitsPassword_ = false;
    signaling_.stop();
    server_.stop();
    devices_.ownName = std::nullopt;
    devices_.rebuild();
    change([](MenuModel::State& state) {
        state.serverRunning = false;
        state.connectedViewer = std::nullopt;
    });
}

// The menu

/// Closes the panel first; the action runs in the next turn, so that a window it opens gets the focus.
template <class F>
auto AppDelegate::closing(F action) {
    return [this, action = std::move(action)](const auto&... given) {
        windows_->hidePanel();
        main_.post(liveness_.guard([action, given...] { action(given...); }));
    };
}

void AppDelegate::wireMenu() {
    MenuModel::Actions& actions = menuModel_.actions;
    actions.startServer = closing([this] { startServer(); });
    actions.stopServer = closing([this] { stopServer(); });
    actions.disconnectViewer = [this] { server_.disconnect(); };
    actions.newPassword = [this] {
        if (!canChangePassword()) return;
        identity_.newPassword();  // which publishes it
        hostLog("New password set; the old one no longer works");
    };
    actions.changePassword = closing([this] { openChangePassword(); });
    actions.connect = closing([this](const Device& device) { openViewer(device); });
    actions.removeDevice = [this](const Device& device) { devices_.remove(device); };
    actions.addDevice = closing([this] { openAddDevice("", ""); });
    actions.openHelp = closing([this] { openHelp(); });
    actions.quit = [this] { quit(); };
}

void AppDelegate::openSettings() {
    windows_->showPanel();
}

void AppDelegate::openHelp() {
    if (services_.helpPage.empty()) {
        return services_.alerts.show(
            {.title = "No help page",
             .text = "Velmora's help is a page on its site, and this build names no site. What Velmora does "
                     "is told in README.md and in the folder Docs of its source.",
             .style = Alert::Style::informational});
    }
    auto complain = liveness_.guard([this](const std::string& words) {
        services_.alerts.show({.title = "The help page can't be opened", .text = words});
    });
    services_.worker.post([&main = main_, open = services_.open, page = services_.helpPage,
                           complain = std::move(complain)]() mutable {
        const auto opened = open(page);
        if (opened) return;
        main.post(
            [complain = std::move(complain), words = opened.error().text]() mutable { complain(words); });
    });
}

/// Else says why.
bool AppDelegate::canChangePassword() {
    if (!identity_.isReady()) {
        services_.alerts.show({.title = "This Mac's password can't be changed yet",
                               .text = "The keychain that holds it is locked or doesn't answer. Unlock it, "
                                       "then try again."});
    }
    return identity_.isReady();
}

void AppDelegate::openChangePassword() {
    if (!canChangePassword()) return;
    windows_->openChangePassword(identity_.password(),
                                 [this](const std::string& password) { changePassword(password); });
}

void AppDelegate::changePassword(const std::string& password) {
    if (password == identity_.password()) return;
    identity_.setPassword(password);  // which publishes it
    if (password == identity_.password()) hostLog("Password changed; the old one no longer works");
}

// Other hosts

void AppDelegate::openAddDevice(const std::string& name, const std::string& hostID) {
    windows_->openAddDevice(name, hostID, [this](const Windows::NewDevice& entry) {
        const auto device = devices_.add(entry.name, entry.hostID, entry.password);
        // What was just entered counts, also if the credential store does not take it.
        if (device && entry.connect && !isQuitting_) showViewer(*device, entry.password);
    });
}

void AppDelegate::openViewer(const Device& device) {
    const auto* const hostId = std::get_if<RemoteDevices::HostId>(&device.target);
    if (!device.isSaved && hostId) {
        const auto saved = std::ranges::find_if(devices_.devices(), [&](const Device& other) {
            return other.isSaved && other.target == device.target;
        });
        if (saved != devices_.devices().end()) return openViewer(Device(*saved));
        return openAddDevice(device.name, hostId->digits);  // nobody gets in there without a password
    }
    devices_.readPassword(device, [this, device](std::optional<std::string> password) {
        if (!isQuitting_) showViewer(device, std::move(password));
    });
}

void AppDelegate::showViewer(const Device& device, std::optional<std::string> password) {
    // A host takes one connection of a device: another window would end the one that is open.
    const auto open =
        std::ranges::find(sessions_, device.id, [](const Session& one) { return one.device.id; });
    if (open != sessions_.end()) return open->viewer->bringForward();
    std::string ownName = services_.server.machine.localizedName();
    if (ownName.empty()) ownName = "Mac";
    auto viewer = windows_->makeViewer({.target = device.target,
                                        .name = device.name,
                                        .password = std::move(password),
                                        .lanEndpoint = device.lanEndpoint,
                                        .fingerprint = device.fingerprint,
                                        .clientName = std::move(ownName)});
    if (!viewer) return debugLog(("⚠︎ There is no display for a window on " + device.name));
    const auto session = sessions_.insert(sessions_.end(), {device, std::move(viewer)});
    session->viewer->onClose = [this, session](const std::optional<ConnectionError>& error) {
        viewerClosed(session, error);
    };
    if (ViewerPreferences::openDebugLogOnConnect(preferences_)) windows_->showDebugLog(Windows::Focus::left);
    session->viewer->start();
}

void AppDelegate::viewerClosed(std::list<Session>::iterator session,
                               const std::optional<ConnectionError>& error) {
    const Device device = session->device;
    const auto told = error;  // it may be the viewer's own
    sessions_.erase(session);
    if (told) showConnectionError(*told, device);
}

AppDelegate::Remedy AppDelegate::remedyFor(ConnectionError::Kind kind, const Device& device) {
    using Kind = ConnectionError::Kind;
    const bool hasHostId = std::holds_alternative<RemoteDevices::HostId>(device.target);
    if ((kind == Kind::wrongPassword || kind == Kind::noSavedPassword) && hasHostId)
        return Remedy::enterPassword;
    constexpr std::array lasting{Kind::wrongPassword, Kind::locked, Kind::noSavedPassword, Kind::outdated,
                                 Kind::onlyLocalNetwork};
    return std::ranges::count(lasting, kind) ? Remedy::none : Remedy::tryAgain;
}

void AppDelegate::showConnectionError(const ConnectionError& error, const Device& device) {
    Alert alert{.title = error.title, .text = error.message};
    if (!alert.text.empty() && !error.suggestion.empty()) alert.text += "\n\n";
    alert.text += error.suggestion;
    if (error.kind == ConnectionError::Kind::locked) alert.style = Alert::Style::critical;
    const Remedy remedy = remedyFor(error.kind, device);
    if (remedy == Remedy::enterPassword) alert.buttons = {"Enter Password…", "Cancel"};
    if (remedy == Remedy::tryAgain) alert.buttons = {"Try Again", "Cancel"};
    services_.alerts.show(std::move(alert), liveness_.guard([this, remedy, device](std::size_t button) {
        if (button != 0 || remedy == Remedy::none || isQuitting_) return;
        if (remedy == Remedy::tryAgain) return openViewer(device);
        openAddDevice(device.name, std::get<RemoteDevices::HostId>(device.target).digits);
    }));
}

void AppDelegate::keyboardTaken() {
    for (const Session& session : sessions_) session.viewer->keyboardTaken();
}

bool AppDelegate::startedAgain() {
    if (!isQuitting_) windows_->showPanel();
    return !isQuitting_;
}

// The end

void AppDelegate::quit() {
    if (std::exchange(isQuitting_, true)) return;
    // Whoever asks may be one of the windows that end with it.
    main_.post(liveness_.guard([this] {
        windows_->hidePanel();
        const bool tellsSomebody = leave();
        sessions_.clear();
        const auto finish = [this] {
            if (goodbye_ || (!isWorkerDone_ && quitLimit_)) return;
            goodbye_.reset(), quitLimit_.reset();
            if (const auto notify = std::exchange(onQuit, nullptr)) notify();
        };
        quitLimit_ = main_.after(longestQuit, finish);
        if (tellsSomebody) goodbye_ = main_.after(goodbyeTime, finish);
        // Passwords and last pictures are on their way through there.
        services_.worker.post([&main = main_, done = liveness_.guard([this, finish] {
            isWorkerDone_ = true;
            finish();
        })]() mutable { main.post(std::move(done)); });
    }));
}

bool AppDelegate::leave() {
    isQuitting_ = true;
    awaitsPassword_ = false;
    const bool tellsSomebody = !sessions_.empty() || server_.connectedViewerName().has_value();
    for (const Session& session : sessions_) session.viewer->disconnect();
    signaling_.stop();
    server_.stop();
    preferences_.flush();
    return tellsSomebody;
}

}  // namespace velmora
