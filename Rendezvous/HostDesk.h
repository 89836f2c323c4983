#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Rendezvous/ClientPort.h"
#include "Rendezvous/GuessLimiter.h"
#include "Rendezvous/Metrics.h"
#include "Rendezvous/NodeLink.h"
#include "Rendezvous/NodeMessages.h"
#include "Rendezvous/SeenHosts.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

/// The hosts that are registered at this node, and what passes between each and its viewers, who may be at
/// another. A host is asked about one viewer at a time, because its "reject" does not say whom it means.
///
/// Whoever has a Host ID's password may take over its registration, which is how a host comes back whose old
/// socket is not known to be dead yet. With another password one has to wait: the holder is asked for a sign
/// of life, and only if that comes does the other hear "busy". So does whoever once heard that and tries
/// again.
///
/// Owned by MeetingPoint; the logic's queue.
class HostDesk {
public:
    struct Parameters {
        std::chrono::seconds answer{5};      // a host asks STUN first, 1.2 s at most
        std::chrono::seconds signOfLife{5};  // from the holder of a registration that another wants
        std::chrono::milliseconds otherNodes{1000};
        std::size_t mostWaiting = 8;        // viewers for one host; more hear "busy"
        std::chrono::seconds session{600};  // how long a session token lives at the host
        std::size_t mostSessions = 16;      // that are remembered of a host
    };
    struct Services {
        Queue& queue;
        NodeLink& link;
        SeenHosts& seen;
        GuessLimiter& limiter;
        Metrics& metrics;
        std::function<SeenHosts::Time()> clock;
        /// A relay for a session of this host; none: it goes without.
        std::function<std::optional<rendezvous::Relay>(HostNumber)> relay;
        std::function<void(const std::string& node, const std::string& clientId, const rendezvous::ToClient&)>
            tellViewer;
    };
    /// How a host goes: it said so, or its socket ended.
    enum class Departure { hangup, lost };

    HostDesk(Services services, Parameters parameters);

    // From a host's socket
    void receive(const std::shared_ptr<ClientPort>& port, const rendezvous::HostCreate& create);
    void receive(SocketId socket, const rendezvous::HostAvailability& availability);
    void receive(SocketId socket, const rendezvous::Accept& accept);
    void receive(SocketId socket, const rendezvous::Reject& reject);
    void leave(SocketId socket, Departure departure);
    /// Something came from it, if only a pong.
    void heardFrom(SocketId socket);
    /// Whether this socket is, was, or is about to be a host's.
    bool knows(SocketId socket) const;
    bool holds(HostNumber id) const { return hosts_.contains(id); }

    // From a viewer's node
    nodes::Verdict ask(HostNumber id, const nodes::Ask& ask);
    void viewerIsAt(HostNumber id, const std::string& clientId, const std::string& mapped);
    void viewerLeft(HostNumber id, const std::string& clientId);
    /// Its password is being guessed.
    void warn(HostNumber id);

    /// Another node's host wants this ID; `decide` hears whether it may have it.
    void claim(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide);

    void refreshSeen();

private:
    struct Introduction {
        std::string clientId, node, clientName, clientAddress;
        bool agent = false;
    };
    struct Session {
        std::string clientId, node;
        HostClock::time_point since;
        int addresses = 0;  // of the viewer's that were passed on
    };
    /// Somebody with another password is waiting for the holder's sign of life.
    struct Contest {
        TimerToken limit;
        UniqueFunction<void(bool)> decide;
    };
    struct Registration {
        std::shared_ptr<ClientPort> port;
        SeenHosts::Proof proof;
        std::string hostname;
        bool available = true;
        std::vector<Introduction> waiting;
        std::optional<Introduction> asked;  // the one the host is being asked about
        TimerToken answerLimit;             // held exactly while one is
        std::vector<Session> sessions;      // accepted, the newest last
        std::unique_ptr<Contest> contest;
    };

    Registration* find(HostNumber id);
    Registration* find(SocketId socket);
    void contend(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide);
    void askOtherNodes(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide);
    void settleContest(Registration& host);  // the holder is alive
    void enter(const std::shared_ptr<ClientPort>& port, HostNumber id, const rendezvous::HostCreate& create);
    void displace(ClientPort& port);
    void remove(HostNumber id, Departure departure);
    void refuse(ClientPort& port, std::string_view code, std::string_view message);
    void askNext(HostNumber id, Registration& host);
    void giveUpAsking(HostNumber id);
    void say(Registration& host, const rendezvous::ToClient& message);
    rendezvous::JoinRequest requestFor(const Introduction& introduction) const;

    const Services services_;
    const Parameters parameters_;
    std::unordered_map<HostNumber, Registration> hosts_;
    std::unordered_map<SocketId, HostNumber> bySocket_;
    std::unordered_map<SocketId, std::uint64_t> claims_;  // registrations under way, by their newest try
    // Sockets that were told "busy". They are left alone: if they were closed, a copy of the host would come
    // back at once and take its turn, for ever.
    std::unordered_set<SocketId> displaced_;
    std::uint64_t tries_ = 0;
    Gauge& registered_;
    Counter& registrations_;
    Counter& refused_;
    Counter& introductions_;
    Counter& accepted_;
    Counter& rejected_;
    Counter& unanswered_;
    Liveness alive_;
};

}  // namespace velmora
