#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "Host/HostSignaling.h"
#include "Host/StreamServer.h"
#include "Platform/PreferenceStore.h"
#include "Shared/HostIdentity.h"
#include "Shared/Keychain.h"
#include "Shared/ObserverList.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The application without a window: a host that is reachable from start to quit, on its network and by its
/// Host ID. Owns the identity, the server and its presence at the rendezvous service; lives on the main queue
/// for the life of the process.
class HostApplication {
public:
    /// All outlive the application.
    struct Services {
        PreferenceStore& preferences;
        Keychain& keychain;
        Queue& worker;  // may block as long as the credential store does
        StreamServer::Services server;
        SignalingUrl rendezvous;
        WebSocketFactory& sockets;
        UdpProbes& probes;  // on the server's transport: they leave from its port
        const NetworkAddresses& addresses;
    };
    explicit HostApplication(const Services& services);

    /// Lines for whoever started the program: how to reach this machine, and how things stand. Each comes
    /// when it changes.
    std::function<void(const std::string& line)> onLine;
    /// The last viewer has been told, and nothing more is to be done.
    std::function<void()> onQuit;

    /// For a `bye` to leave: streams flush for up to 0.5 s.
    static constexpr std::chrono::milliseconds goodbyeTime{600};

    /// Starts the server if the settings say so.
    void start();
    /// Says goodbye to a viewer, saves the preferences, then calls `onQuit`. May be repeated.
    void quit();

private:
    void identityChanged();
    void tellIdentity();
    void tellPresence(const HostSignaling::Status& status);
    void tell(const std::string& line);

    Queue& main_;
    PreferenceStore& preferences_;
    HostIdentity identity_;
    StreamServer server_;
    HostSignaling signaling_;
    ObserverList::Token identityObserver_;
    std::string toldIdentity_, toldStatus_, toldPresence_;
    bool wantsServer_ = false;  // as soon as the password can be read
    bool isQuitting_ = false;
    TimerToken goodbye_;
};

}  // namespace velmora
