#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Signaling/SignalingClient.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"
#include "Viewer/Session/RendezvousPath.h"

namespace velmora {

/// The second rung as it is: joins by Host ID and password over a SignalingClient, and once the host has
/// accepted, starts QUIC attempts that race: to its local addresses at once, to its public address through a
/// hole punched from both sides, and by the relay if nothing has answered by then.
class SignalingRendezvousPath final : public RendezvousPath {
public:
    /// All outlive us.
    struct Services {
        WebSocketFactory& sockets;
        UdpProbes& probes;
        PreferenceStore& preferences;
        Queue& main;
    };
    struct Parameters {
        std::chrono::milliseconds punchHeadStart{250};   // for the host's first punches to be on their way
        std::chrono::milliseconds relayPatience{1'200};  // with local addresses to try first
        std::chrono::milliseconds relayReplyLimit{1'000};
        std::chrono::milliseconds relayHeadStart{400};  // for our registration to reach the relay
        std::chrono::milliseconds raceLimit{10'000};
        std::size_t mostAddresses = 32;  // each is a connection attempt; a host with many bridges has a dozen
        std::function<std::uint16_t()> drawLocalPort = randomLocalPort;
    };

    SignalingRendezvousPath(Ladder& ladder, SignalingUrl url, Services services);
    SignalingRendezvousPath(Ladder& ladder, SignalingUrl url, Services services, Parameters parameters);

    /// For viewers: one such path for each connection that needs it.
    static Factory factory(SignalingUrl url, Services services);

    void start(const std::string& hostID) override;
    /// The host's NAT lets our new address in no more than any other stranger's: the host punches towards it,
    /// and QUIC moves there.
    void reopenDirect() override;
    /// To the relay we are a stranger too, until we register from there. It takes that once it has not heard
    /// our old address for some seconds.
    void reopenRelay() override;
    void hangUp() override;

    /// 50000 to 60000, both included.
    static std::uint16_t randomLocalPort();

private:
    void join();
    void handleState(SignalingClient::State state, const std::optional<std::string>& reason);

    void handle(const rendezvous::JoinPending& message);
    void handle(const rendezvous::Accepted& message);
    void handle(const rendezvous::Rejected& message);
    void handle(const rendezvous::Error& message);
    void handle(const rendezvous::AdminKick& message);
    void handle(const rendezvous::PeerLeft& message);
    template <class ForHosts>
    void handle(const ForHosts&) {}

    void race(const rendezvous::HostCandidates& candidates,
              const std::optional<rendezvous::RelayOffer>& offer);
    void tryDirect(const std::string& hostMapped);
    void punched(const std::string& hostMapped, std::uint16_t localPort,
                 const std::optional<std::string>& mapped);
    void tryRelay(const rendezvous::RelayOffer& offer, std::chrono::milliseconds patience);
    void registerAtRelay(const rendezvous::Relay& relay);
    void sendToRelay(std::chrono::milliseconds waitForReply, std::function<void(const Bytes&)> reply);
    void attempt(std::string label, Endpoint endpoint, std::optional<std::uint16_t> localPort);

    Ladder& ladder_;
    const Services services_;
    const Parameters parameters_;
    std::string hostID_;
    bool accepted_ = false;
    std::optional<std::uint16_t> directPort_;  // ours, once an attempt has been made from it
    struct RelayPlace {
        rendezvous::Relay relay;
        std::uint16_t localPort = 0;
    };
    std::optional<RelayPlace> relayPlace_;  // once registered
    std::string fingerprint_;               // once accepted
    TimerToken directTimer_, relayTimer_, raceTimer_;
    Liveness liveness_;
    SignalingClient client_;
};

}  // namespace velmora
