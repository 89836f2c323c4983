#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "App/Alerts.h"
#include "App/MenuModel.h"
#include "App/Windows.h"
#include "Host/HostSignaling.h"
#include "Host/StreamServer.h"
#include "Platform/HttpClient.h"
#include "Platform/PreferenceStore.h"
#include "Shared/ConnectionError.h"
#include "Shared/HostIdentity.h"
#include "Shared/Keychain.h"
#include "Shared/ObserverList.h"
#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The application: a host that is reachable from start to quit, and the windows on other hosts. Owns the
/// server and its presence at the rendezvous service, the list of devices, the panel and all viewer windows,
/// and decides what opens when. Lives on the main queue for the life of the process.
class AppDelegate {
public:
    using Device = RemoteDevices::Device;
    /// All outlive the delegate.
    struct Services {
        PreferenceStore& preferences;
        Keychain& keychain;
        HttpClient& http;
        Queue& worker;  // may block as long as the credential store does
        StreamServer::Services server;
        SignalingUrl rendezvous;
        WebSocketFactory& sockets;
        UdpProbes& probes;  // on the server's transport: they leave from its port
        const NetworkAddresses& addresses;
        Alerts& alerts;
        std::function<std::unique_ptr<Windows>(const Windows::Contents&)> makeWindows;
        /// The preferences from when the viewer was a program of its own.
        std::function<std::unique_ptr<PreferenceStore>()> openViewerSuite;
        std::string helpPage;  // an address; empty: this build has none
        /// Opens an address on the desktop, or says why it cannot. Called on `worker`.
        std::function<Result<std::string>(const std::string& address)> open;
    };
    explicit AppDelegate(const Services& services);
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    /// Everybody has been told, and nothing more is to be done.
    std::function<void()> onQuit;

    /// For a `bye` to leave: streams flush for up to 0.5 s.
    static constexpr std::chrono::milliseconds goodbyeTime{600};
    /// A credential store that does not answer keeps the program no longer.
    static constexpr std::chrono::milliseconds longestQuit{3000};

    /// Applies what is saved, opens the panel's status item, and starts the server if the settings say so.
    void start();
    /// Says goodbye to everybody, saves what is to be saved, then calls `onQuit`. May be repeated.
    void quit();
    /// The same at once and without touching a window, for when the screen has gone and nothing is run any
    /// more: after `goodbyeTime` the process may end. True: there was somebody to say goodbye to.
    bool leave();

    /// The program was started once more: shows the panel. False: it is about to end.
    bool startedAgain();
    /// See Windows::Viewer.
    void keyboardTaken();

    HostIdentity& identity() { return identity_; }
    MenuModel& menuModel() { return menuModel_; }

private:
    struct Session {
        Device device;
        std::unique_ptr<Windows::Viewer> viewer;
    };
    enum class Remedy { none, tryAgain, enterPassword };

    void listenToServer();
    void listenToSignaling();
    void wireMenu();
    void migrateViewerPreferences();
    template <class F>
    auto closing(F action);
    void change(const std::function<void(MenuModel::State&)>& edit);

    void startServer();
    void stopServer();
    void identityChanged();

    void openViewer(const Device& device);
    void showViewer(const Device& device, std::optional<std::string> password);
    void viewerClosed(std::list<Session>::iterator session, const std::optional<ConnectionError>& error);
    void showConnectionError(const ConnectionError& error, const Device& device);
    static Remedy remedyFor(ConnectionError::Kind kind, const Device& device);

    void openAddDevice(const std::string& name, const std::string& hostID);
    bool canChangePassword();
    void openChangePassword();
    void changePassword(const std::string& password);
    void openSettings();
    void openHelp();

    const Services services_;
    Queue& main_;
    PreferenceStore& preferences_;
    HostIdentity identity_;
    RemoteDevices devices_;
    MenuModel menuModel_;
    StreamServer server_;
    HostSignaling signaling_;
    ObserverList::Token identityObserver_;
    std::unique_ptr<PreferenceStore::Observation> preferenceObservation_;
    bool awaitsPassword_ = false;  // the server starts as soon as it can be read
    bool isQuitting_ = false, isWorkerDone_ = false;
    TimerToken goodbye_, quitLimit_;
    const std::unique_ptr<Windows> windows_;
    std::list<Session> sessions_;  // in the order of opening
    Liveness liveness_;
};

}  // namespace velmora
