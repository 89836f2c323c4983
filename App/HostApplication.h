#pragma once

#include <functional>
#include <string>

#include "Host/StreamServer.h"
#include "Platform/PreferenceStore.h"
#include "Shared/HostIdentity.h"
#include "Shared/Keychain.h"
#include "Shared/ObserverList.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The application without a window: a host that is reachable from start to quit. Owns the identity and the
/// server; lives on the main queue for the life of the process.
class HostApplication {
public:
    /// All outlive the application.
    struct Services {
        PreferenceStore& preferences;
        Keychain& keychain;
        Queue& worker;  // may block as long as the credential store does
        StreamServer::Services server;
    };
    explicit HostApplication(const Services& services);

    /// Lines for whoever started the program: how to reach this machine, and how things stand. Each comes
    /// when it changes.
    std::function<void(const std::string& line)> onLine;
    /// The last viewer has been told, and nothing more is to be done.
    std::function<void()> onQuit;

    /// Starts the server if the settings say so.
    void start();
    /// Says goodbye to a viewer, saves the preferences, then calls `onQuit`. May be repeated.
    void quit();

private:
    void identityChanged();
    void tellIdentity();
    void tell(const std::string& line);

    Queue& main_;
    PreferenceStore& preferences_;
    HostIdentity identity_;
    StreamServer server_;
    ObserverList::Token identityObserver_;
    std::string toldIdentity_, toldStatus_;
    bool wantsServer_ = false;  // as soon as the password can be read
    bool isQuitting_ = false;
    TimerToken goodbye_;
};

}  // namespace velmora
