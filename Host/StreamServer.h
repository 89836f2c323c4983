#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Host/Admission.h"
#include "Host/HostSession.h"
#include "Host/QUICServer.h"
#include "Platform/KeepAwake.h"
#include "Platform/MacKind.h"
#include "Platform/MachineInfo.h"
#include "Platform/ServiceDiscovery.h"
#include "Shared/ServerSettings.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"

namespace velmora {

/// The host's front door: listens, advertises the machine, lets one viewer at a time in, and says in one line
/// how things stand. One per process, on the main queue.
///
/// A viewer is first *pending*, until its `Hello` is decided, then has the *session*. While a session runs a
/// second viewer may be pending: it is told that the host is busy, or takes over if it is the same device.
class StreamServer {
public:
    struct Parameters {
        std::uint16_t port = velmoraDefaultPort;
        std::chrono::milliseconds listenerDeadline{5'000};  // then something blocks it
        std::chrono::milliseconds restartDelay{3'000};
        std::chrono::milliseconds certificateRetry{5'000};  // a person unlocks a keychain within seconds
        std::chrono::milliseconds helloDeadline{10'000};    // or one silent peer would block every other
        std::chrono::milliseconds denialLinger{500};        // for the denial to arrive
    };
    /// All outlive the server.
    struct Services {
        Queue& main;
        Queue& quic;  // "velmora.quic"
        TransportStack& transport;
        ServiceDiscovery& discovery;
        KeepAwake& keepAwake;
        const MachineInfo& machine;
        QUICServer::CertificateLoader loadCertificate;
        std::function<MacKind()> machineKind;
        HostSessionFactory makeSession;
    };

    StreamServer(Services services, ServerSettings settings);
    StreamServer(Services services, ServerSettings settings, Parameters parameters);
    /// Ends everything in silence.
    ~StreamServer();

    /// A line for the menu, and whether a viewer is being streamed to.
    std::function<void(const std::string& text, bool connected)> onStatus;
    /// Told once: the listener cannot work.
    std::function<void()> onListenerBlocked;
    /// This machine's Host ID, and its password if it can be read now.
    std::function<std::optional<HostCredentials>()> identity;

    /// What sessions that begin from now on do; see also `updateKeepAwake`.
    ServerSettings settings;

    void start();
    void stop();
    /// Says goodbye to the viewer; the server goes on listening.
    void disconnect();
    /// The rendezvous service let `viewerName` through; it will show `token` as its proof.
    void authorize(const std::string& token, const std::string& viewerName);
    /// To be called after a change of `settings`.
    void updateKeepAwake();

    bool hasListener() const { return listener_ != nullptr; }
    /// The viewer being streamed to.
    const std::optional<std::string>& connectedViewerName() const { return connectedViewerName_; }
    /// The certificate's, once it has been read.
    const std::optional<std::string>& fingerprint() const { return quic_.fingerprint; }

private:
    /// Identifies a viewer, also after its connection is gone.
    using ViewerKey = const MessageConnection*;
    struct Viewer {
        std::shared_ptr<MessageConnection> connection;
        std::shared_ptr<DatagramFlow> videoFlow;
        TimerToken helloDeadline;  // held while pending
        TimerToken linger;         // held between a denial and the end
    };
    struct Session {
        ViewerKey viewer = nullptr;
        std::optional<std::string> deviceID;
        std::unique_ptr<HostSession> session;
    };

    void report(const std::string& text, bool connected = false);
    void setWaiting();

    void certificateLoaded(std::optional<KeyStore::Lack> lack);
    void listen();
    void handleListenerState(TransportState state, const std::optional<TransportError>& error);
    void listenerReady();
    void listenerFailed(const TransportError& error);
    void listenerBlocked();
    void closeListener();

    void handleNew(std::shared_ptr<MessageConnection> connection, std::shared_ptr<DatagramFlow> video);
    void helloOverdue(ViewerKey key);
    void handleHello(ViewerKey key, const std::optional<Hello>& hello);
    void replaceSession(Viewer& newcomer, const std::string& text);
    void deny(Viewer& viewer, const Admission::Decision& decision);
    void sendDenial(Viewer& viewer, std::string_view code, std::string_view message);
    void beginSession(Viewer& viewer, const Hello& hello);
    void sessionFailed(ViewerKey key, const Failure& failure);
    void endSession();
    void connectionEnded(ViewerKey key);
    void startStats(const std::string& viewerName);

    static void logAndSend(const std::string& text, MessageConnection& connection);

    const Services services_;
    const Parameters parameters_;
    Queue& main_;
    QUICServer quic_;
    Admission admission_;

    bool wantsRunning_ = false;
    bool loadingCertificate_ = false;
    bool toldCertificateUnavailable_ = false;
    bool reportedBlocked_ = false;  // never cleared
    std::string serviceName_;
    std::unique_ptr<Listener> listener_;
    std::unique_ptr<ServiceDiscovery::Request> advertisement_;
    std::unique_ptr<KeepAwake::Assertion> keepAwake_;
    TimerToken listenerCheck_;
    TimerToken restart_;

    std::map<ViewerKey, Viewer> viewers_;  // every connection until it has ended
    ViewerKey pending_ = nullptr;
    std::optional<Session> session_;
    std::optional<std::string> connectedViewerName_;
    TimerToken statsTimer_;
    Liveness alive_;
};

}  // namespace velmora
