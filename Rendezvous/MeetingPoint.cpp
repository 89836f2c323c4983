#include "Rendezvous/MeetingPoint.h"

#include <utility>
#include <vector>

#include "Rendezvous/NodeMessages.h"

namespace velmora {
namespace {

template <class... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <class... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace

MeetingPoint::MeetingPoint(Services services, Parameters parameters)
    : services_(std::move(services)),
      parameters_(parameters),
      limiter_(parameters.guesses),
      hosts_({.queue = services_.queue,
              .link = services_.link,
              .seen = services_.seen,
              .limiter = limiter_,
              .metrics = services_.metrics,
              .clock = services_.clock,
              .relay = services_.relay,
              .tellViewer = [this](const auto& node, const auto& clientId,
                                   const auto& message) { tellViewer(node, clientId, message); }},
             parameters.hosts),
      viewers_({.queue = services_.queue,
                .link = services_.link,
                .seen = services_.seen,
                .limiter = limiter_,
                .metrics = services_.metrics,
                .clock = services_.clock,
                .hosts = hosts_},
               parameters.viewers),
      open_(services_.metrics.gauge("velmora_websockets", "Open WebSockets.")),
      messages_(services_.metrics.counter("velmora_messages_total", "Messages from clients.")),
      malformed_(services_.metrics.counter("velmora_malformed_total", "Messages that were none.")),
      idle_(services_.metrics.counter("velmora_idle_closed_total", "Sockets closed for saying nothing.")) {
    services_.link.onRequest =
        alive_.guard([this](HostNumber id, const std::string& text, NodeLink::Reply reply) {
            request(id, text, std::move(reply));
        });
    services_.link.onMessage = alive_.guard([this](const std::string& text) { message(text); });
    sweep();
}

MeetingPoint::~MeetingPoint() {
    services_.link.onRequest = nullptr;
    services_.link.onMessage = nullptr;
}

void MeetingPoint::opened(std::shared_ptr<ClientPort> port) {
    assertOn(services_.queue);
    const SocketId id = port->id();
    clients_[id] = {std::move(port), services_.queue.now()};
    open_.add(1);
}

void MeetingPoint::closed(SocketId socket) {
    assertOn(services_.queue);
    if (clients_.erase(socket) == 0) return;
    open_.add(-1);
    viewers_.leave(socket);
    hosts_.leave(socket, HostDesk::Departure::lost);
}

void MeetingPoint::received(SocketId socket, std::string_view text) {
    assertOn(services_.queue);
    const auto client = clients_.find(socket);
    if (client == clients_.end()) return;
    messages_.add();
    hosts_.heardFrom(socket);
    const std::shared_ptr<ClientPort> port = client->second.port;
    if (const auto message = rendezvous::decodeFromClient(text)) return handle(port, *message);
    if (rendezvous::isOfUnknownType(text)) return;
    malformed_.add();
    port->close(CloseReason::policy, "malformed message");
}

void MeetingPoint::answeredProbe(SocketId socket) {
    hosts_.heardFrom(socket);
}

void MeetingPoint::handle(const std::shared_ptr<ClientPort>& port, const rendezvous::FromClient& message) {
    const SocketId socket = port->id();
    std::visit(Overloaded{[&](const rendezvous::HostCreate& create) { hosts_.receive(port, create); },
                          [&](const rendezvous::HostAvailability& change) { hosts_.receive(socket, change); },
                          [&](const rendezvous::Accept& accept) { hosts_.receive(socket, accept); },
                          [&](const rendezvous::Reject& reject) { hosts_.receive(socket, reject); },
                          [&](const rendezvous::Join& join) { viewers_.receive(port, join); },
                          [&](const rendezvous::ViewerCandidates& candidates) {
                              viewers_.receive(socket, candidates);
                          },
                          [&](const rendezvous::Hangup&) {
                              viewers_.leave(socket);
                              hosts_.leave(socket, HostDesk::Departure::hangup);
                          }},
               message);
}

void MeetingPoint::devices(const ClientAddress& from, std::string_view body, ViewerDesk::DevicesReply reply) {
    assertOn(services_.queue);
    viewers_.devices(from, body, std::move(reply));
}

void MeetingPoint::tellViewer(const std::string& node, const std::string& clientId,
                              const rendezvous::ToClient& message) {
    if (node == services_.link.node()) return viewers_.deliver(clientId, message);
    services_.link.sendTo(node, nodes::encode(nodes::ToViewer{clientId, rendezvous::encode(message)}));
}

void MeetingPoint::request(HostNumber id, std::string_view text, NodeLink::Reply reply) {
    const auto message = nodes::decode(text);
    // While a host is still registering it is listened for here already, and another node may have it: that
    // one's answer counts.
    if (!message || !hosts_.holds(id)) return;
    if (const auto* ask = std::get_if<nodes::Ask>(&*message))
        return reply(nodes::encode(hosts_.ask(id, *ask)));
    if (const auto* claim = std::get_if<nodes::Claim>(&*message)) {
        return hosts_.claim(id, *claim, [reply = std::move(reply)](bool released) mutable {
            reply(nodes::encode(nodes::ClaimVerdict{released}));
        });
    }
    if (const auto* from = std::get_if<nodes::FromViewer>(&*message)) {
        if (from->mapped) return hosts_.viewerIsAt(id, from->clientId, *from->mapped);
        hosts_.viewerLeft(id, from->clientId);
    }
}

void MeetingPoint::message(std::string_view text) {
    const auto message = nodes::decode(text);
    if (!message) return;
    if (const auto* to = std::get_if<nodes::ToViewer>(&*message)) {
        if (const auto forViewer = rendezvous::decodeToClient(to->text))
            viewers_.deliver(to->clientId, *forViewer);
    } else if (const auto* guess = std::get_if<nodes::Guess>(&*message)) {
        const auto id = hostNumberOf(guess->hostId);
        if (id && limiter_.wrongElsewhere(*id, guess->source, guess->mark, services_.queue.now()))
            hosts_.warn(*id);
    } else if (const auto* seen = std::get_if<nodes::Seen>(&*message)) {
        services_.seen.read(seen->line, services_.clock());
    }
}

void MeetingPoint::sweep() {
    const auto now = services_.queue.now();
    std::vector<std::shared_ptr<ClientPort>> silent;
    for (auto& [id, client] : clients_) {
        if (hosts_.knows(id) || viewers_.knows(id)) {
            client.idleSince = now;
        } else if (now - client.idleSince >= parameters_.idle) {
            silent.push_back(client.port);
        }
    }
    for (const auto& port : silent) {
        idle_.add();
        port->close(CloseReason::policy, "neither host nor viewer");
    }
    sweepTimer_ = services_.queue.after(parameters_.idle / 4, alive_.guard([this] { sweep(); }));
}

}  // namespace velmora
