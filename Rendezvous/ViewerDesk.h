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
#include "Rendezvous/NodeMessages.h"
#include "Rendezvous/SeenHosts.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

/// The viewers of this node: checks the Host ID and password that each brings, wherever the host is, and
/// carries what passes between the two. Every refusal goes out at the same time after the question, so that
/// an unknown ID cannot be told from a wrong password by waiting.
///
/// Owned by MeetingPoint; the logic's queue.
class ViewerDesk {
public:
    struct Parameters {
        std::chrono::milliseconds refusal{300};  // after the question; longer than any node takes to answer
        std::chrono::milliseconds otherNodes{2000};
        std::size_t mostDevices = 100;  // in one question after a device list
    };
    struct Services {
        Queue& queue;
        NodeLink& link;
        SeenHosts& seen;
        GuessLimiter& limiter;
        Metrics& metrics;
        std::function<SeenHosts::Time()> clock;
        HostDesk& hosts;
    };

    ViewerDesk(Services services, Parameters parameters);

    // From a viewer's socket
    void receive(const std::shared_ptr<ClientPort>& port, const rendezvous::Join& join);
    void receive(SocketId socket, const rendezvous::ViewerCandidates& candidates);
    /// It hung up or its socket ended.
    void leave(SocketId socket);
    bool knows(SocketId socket) const { return viewers_.contains(socket); }

    /// What its host has for it, or the host's node about it.
    void deliver(const std::string& clientId, const rendezvous::ToClient& message);

    /// Answers a device list's question: JSON {"devices":[{"id","password"}...]} gets the same with "online",
    /// "passwordChanged" and "locked" for each; what may not be asked now is left out. None: no such JSON, or
    /// more than `mostDevices`.
    using DevicesReply = UniqueFunction<void(std::optional<std::string>)>;
    void devices(const ClientAddress& from, std::string_view body, DevicesReply reply);

private:
    enum class Outcome { here, offline, busy, wrongPassword, locked, rateLimited };
    struct Checked {
        Outcome outcome;
        std::string hostname;
    };
    using Done = UniqueFunction<void(Checked)>;
    struct Viewer {
        enum class State { checking, introduced, refused };
        std::shared_ptr<ClientPort> port;
        std::string clientId;
        HostNumber host{};
        State state = State::checking;
        TimerToken refusal;  // held exactly while refused
    };
    struct Poll;

    void check(std::string_view id, const ClientAddress& from, nodes::Ask ask, Done done);
    void judge(HostNumber id, const std::string& source, const std::string& password,
               const nodes::Verdict& verdict, Done done);
    void settle(Viewer& viewer, const Checked& checked, HostClock::time_point asked);
    void tellHostThatItLeft(const Viewer& viewer);
    /// How long until a refusal of a question of that time may go out.
    HostClock::duration untilRefusal(HostClock::time_point asked) const;
    static std::string_view codeOf(Outcome outcome);

    const Services services_;
    const Parameters parameters_;
    std::unordered_map<SocketId, Viewer> viewers_;
    std::unordered_map<std::string, SocketId> byClientId_;
    Gauge& connected_;
    Counter& joins_;
    Counter& polls_;
    Liveness alive_;
};

}  // namespace velmora
