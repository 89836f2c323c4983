#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "Platform/MachineInfo.h"
#include "Platform/NetworkAddresses.h"
#include "Shared/HostIdentity.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Signaling/SignalingClient.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "VelmoraKit/Wire/MessageType.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

class StreamServer;

/// Keeps this machine registered at the rendezvous service, and answers viewers that come by Host ID with the
/// ways in: addresses, a relay registration, punches towards them. It carries no picture; once a viewer's
/// QUIC connection arrives, StreamServer has it. One per process, on the main queue.
class HostSignaling {
public:
    struct Status {
        enum class Kind { off, connecting, online, offline };
        Kind kind = Kind::off;
        std::string reason{};  // of `offline`, for people
        bool operator==(const Status&) const = default;
    };
    /// What is asked and told of the server.
    struct Server {
        std::function<void(const std::string& token, const std::string& viewerName)> authorize;
        std::function<bool()> allowsPasswordAccess;  // also from other networks
        std::function<bool()> hasViewer;
        std::function<std::optional<std::string>()> fingerprint;  // none: it cannot take QUIC now

        static Server of(StreamServer& server);
    };
    /// All outlive us.
    struct Services {
        HostIdentity& identity;
        Server server;
        WebSocketFactory& sockets;
        UdpProbes& probes;
        const NetworkAddresses& addresses;
        const MachineInfo& machine;
        Queue& main;
    };
    struct Parameters {
        std::uint16_t port = velmoraDefaultPort;  // the server's: all that we send leaves from it
        int punches = 6;                          // any one of them may be lost, or be too early
        std::chrono::milliseconds punchInterval{100};
        std::chrono::milliseconds relayReplyLimit{2'000};
        std::chrono::milliseconds relayInterval{3'000};  // NATs forget UDP within half a minute
        std::chrono::seconds relayLifetime{600};         // as long as the token is good for
        /// After a refused registration; doubled each time. What holds our ID may be what is left of an
        /// earlier connection of ours, which a service notices within a minute, or a copy of this machine.
        std::chrono::seconds firstRegistrationRetry{10};
        std::chrono::seconds longestRegistrationRetry{300};
    };

    HostSignaling(SignalingUrl url, Services services);
    HostSignaling(SignalingUrl url, Services services, Parameters parameters);

    /// Set before `start`.
    std::function<void(const Status&)> onStatus;  // of every change
    std::function<void(const std::string& text)> onSecurityNotice;
    /// The service ends the running session.
    std::function<void()> onAdminKick;

    const Status& status() const { return status_; }

    void start();
    void stop();
    /// Tells the service our ID and password. It also happens by itself, at each new connection, whenever the
    /// password changes and some time after a refusal; without a password to tell, nothing is told.
    void registerHost();

private:
    void handleState(SignalingClient::State state, const std::optional<std::string>& reason);
    void setStatus(Status status);

    void handle(const rendezvous::SessionCreated& message);
    void handle(const rendezvous::JoinRequest& message);
    void handle(const rendezvous::Accepted& message);
    void handle(const rendezvous::ViewerCandidates& message);
    void handle(const rendezvous::SecurityNotice& message);
    void handle(const rendezvous::AdminKick& message);
    void handle(const rendezvous::PeerLeft& message);
    void handle(const rendezvous::Error& message);
    void handle(const rendezvous::JoinPending&) {}  // for viewers
    void handle(const rendezvous::Rejected&) {}

    void registerLater();

    void accept(const std::string& clientId, const std::optional<std::string>& mapped);
    void punch(std::string host, std::uint16_t port, int remaining);
    void startRelayRegistration(const rendezvous::Relay& relay);
    void repeatRelayRegistration(const rendezvous::Relay& relay);
    void sendToRelay(const rendezvous::Relay& relay, std::chrono::milliseconds waitForReply,
                     std::function<void(const Bytes&)> reply);

    const Services services_;
    const Parameters parameters_;
    bool active_ = false;
    Status status_;
    std::map<std::string, std::string> pendingNames_;  // by clientId, between its request and "accepted"
    std::optional<std::string> publicAddress_;
    std::chrono::seconds registrationRetry_;
    TimerToken registrationTimer_;  // held while connected and refused
    TimerToken relayTimer_;
    HostClock::time_point relayStarted_;
    std::map<std::uint64_t, TimerToken> punchTimers_;  // one for each viewer being punched towards
    std::uint64_t lastPunch_ = 0;
    ObserverList::Token identityObservation_;
    Liveness liveness_;
    SignalingClient client_;
};

}  // namespace velmora
