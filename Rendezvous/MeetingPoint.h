#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Rendezvous/ClientPort.h"
#include "Rendezvous/GuessLimiter.h"
#include "Rendezvous/HostDesk.h"
#include "Rendezvous/Metrics.h"
#include "Rendezvous/NodeLink.h"
#include "Rendezvous/SeenHosts.h"
#include "Rendezvous/ViewerDesk.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

/// Where hosts and viewers find each other: reads what each socket says and hands it to the desk it is for,
/// and what comes from other nodes. A socket that says something that is no message is closed; a message of a
/// type not known is skipped, so that newer clients can say more.
///
/// One for a node; everything on the logic's queue.
class MeetingPoint {
public:
    struct Parameters {
        std::chrono::seconds idle{10};  // until a socket must have said whether it is a host's or a viewer's
        HostDesk::Parameters hosts;
        ViewerDesk::Parameters viewers;
        GuessLimiter::Parameters guesses;
    };
    struct Services {
        Queue& queue;
        NodeLink& link;
        SeenHosts& seen;
        Metrics& metrics;
        std::function<SeenHosts::Time()> clock;
        std::function<std::optional<rendezvous::Relay>(HostNumber)> relay;
    };

    MeetingPoint(Services services, Parameters parameters);
    ~MeetingPoint();

    void opened(std::shared_ptr<ClientPort> port);
    void received(SocketId socket, std::string_view text);
    void answeredProbe(SocketId socket);
    /// Its end, whoever ended it. Nothing is sent to it any more.
    void closed(SocketId socket);

    void devices(const ClientAddress& from, std::string_view body, ViewerDesk::DevicesReply reply);

    /// Live hosts count as seen now: before the list is written away.
    void refreshSeen() { hosts_.refreshSeen(); }

private:
    struct Client {
        std::shared_ptr<ClientPort> port;
        HostClock::time_point idleSince;
    };
    void handle(const std::shared_ptr<ClientPort>& port, const rendezvous::FromClient& message);
    void request(HostNumber id, std::string_view text, NodeLink::Reply reply);
    void message(std::string_view text);
    void tellViewer(const std::string& node, const std::string& clientId,
                    const rendezvous::ToClient& message);
    void sweep();

    const Services services_;
    const Parameters parameters_;
    GuessLimiter limiter_;
    HostDesk hosts_;
    ViewerDesk viewers_;
    std::unordered_map<SocketId, Client> clients_;
    TimerToken sweepTimer_;
    Gauge& open_;
    Counter& messages_;
    Counter& malformed_;
    Counter& idle_;
    Liveness alive_;
};

}  // namespace velmora
