#include "Rendezvous/HostDesk.h"

#include <algorithm>
#include <utility>

#include "Rendezvous/Secrets.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {
namespace {

constexpr std::size_t longestName = 128;     // bytes, of what machines call themselves
constexpr std::size_t longestMessage = 512;  // bytes, of a host's words to a viewer
constexpr std::size_t mostAddresses = 32;    // of a host
constexpr std::size_t longestFingerprint = 256;
constexpr int mostPunches = 3;  // for one viewer: each makes the host send packets to an address not proven

/// What a host says of itself, without what no viewer could use.
rendezvous::HostCandidates usable(rendezvous::HostCandidates candidates) {
    std::erase_if(candidates.addresses, [](const auto& address) { return !isSocketAddress(address); });
    if (candidates.addresses.size() > mostAddresses) candidates.addresses.resize(mostAddresses);
    if (candidates.mapped && !isSocketAddress(*candidates.mapped)) candidates.mapped.reset();
    if (candidates.fingerprint.size() > longestFingerprint) candidates.fingerprint.clear();
    return candidates;
}

const rendezvous::Error offline{.message = "The Mac went offline.", .code = "offline"};

}  // namespace

HostDesk::HostDesk(Services services, Parameters parameters)
    : services_(std::move(services)),
      parameters_(parameters),
      registered_(services_.metrics.gauge("velmora_hosts", "Hosts registered at this node.")),
      registrations_(services_.metrics.counter("velmora_registrations_total", "Registrations taken.")),
      refused_(services_.metrics.counter("velmora_registrations_refused_total", "Registrations refused.")),
      introductions_(
          services_.metrics.counter("velmora_introductions_total", "Viewers with the right password.")),
      accepted_(services_.metrics.counter("velmora_answers_total", "Hosts' answers.", "answer=\"accept\"")),
      rejected_(services_.metrics.counter("velmora_answers_total", "Hosts' answers.", "answer=\"reject\"")),
      unanswered_(services_.metrics.counter("velmora_answers_total", "Hosts' answers.", "answer=\"none\"")) {}

HostDesk::Registration* HostDesk::find(HostNumber id) {
    const auto found = hosts_.find(id);
    return found == hosts_.end() ? nullptr : &found->second;
}

HostDesk::Registration* HostDesk::find(SocketId socket) {
    const auto found = bySocket_.find(socket);
    return found == bySocket_.end() ? nullptr : find(found->second);
}

bool HostDesk::knows(SocketId socket) const {
    return bySocket_.contains(socket) || claims_.contains(socket) || displaced_.contains(socket);
}

void HostDesk::say(Registration& host, const rendezvous::ToClient& message) {
    host.port->send(rendezvous::encode(message));
}

void HostDesk::refuse(ClientPort& port, std::string_view code, std::string_view message) {
    refused_.add();
    port.send(
        rendezvous::encode(rendezvous::Error{.message = std::string(message), .code = std::string(code)}));
}

// Registering

void HostDesk::receive(const std::shared_ptr<ClientPort>& port, const rendezvous::HostCreate& create) {
    const SocketId socket = port->id();
    const auto id = hostNumberOf(create.hostId);
    if (!id || !isHostPassword(create.password)) {
        refuse(*port, "invalid", "That is no Host ID with a password.");
        return port->close(CloseReason::policy, "invalid registration");
    }
    const auto own = bySocket_.find(socket);
    if (own != bySocket_.end() && own->second == *id) return enter(port, *id, create);
    if (own != bySocket_.end()) remove(own->second, Departure::hangup);

    const std::string& source = port->address().network;
    const auto now = services_.queue.now();
    if (!services_.limiter.admitRegistration({*id, source, services_.seen.markOf(*id)}, now)) {
        return refuse(*port, "rate_limited", "Too many registrations from this address.");
    }
    const std::uint64_t serial = claims_[socket] = ++tries_;
    // Whose registration went to another may have it back once that one is gone. With the password it would
    // take it in its turn, and two copies of a host would drive each other out for ever.
    const nodes::Claim wanted{displaced_.contains(socket) ? std::string() : create.password, source};
    // Only the newest try of a socket that is still there may have an effect.
    auto decide = alive_.guard([this, weak = std::weak_ptr(port), id = *id, create, serial](bool free) {
        const auto port = weak.lock();
        const auto claim = port ? claims_.find(port->id()) : claims_.end();
        const bool isWanted = claim != claims_.end() && claim->second == serial;
        if (isWanted) claims_.erase(claim);
        if (isWanted && free) return enter(port, id, create);
        if (!find(id)) services_.link.leave(id);
        if (!isWanted) return;
        displaced_.insert(port->id());
        refuse(*port, "busy", "This Mac's ID is in use elsewhere.");
    });
    contend(*id, wanted,
            alive_.guard([this, id = *id, wanted, decide = std::move(decide)](bool free) mutable {
                // What is held here is held nowhere else.
                if (!free || find(id)) return decide(free);
                askOtherNodes(id, wanted, std::move(decide));
            }));
}

void HostDesk::askOtherNodes(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide) {
    // Listening before asking: once the answer is here, the host can be found from every node.
    services_.link.listenAt(id);
    services_.link.request(id, nodes::encode(claim), parameters_.otherNodes,
                           [decide = std::move(decide)](const std::optional<std::string>& answer) mutable {
                               const auto message = answer ? nodes::decode(*answer) : std::nullopt;
                               const auto* verdict =
                                   message ? std::get_if<nodes::ClaimVerdict>(&*message) : nullptr;
                               decide(!verdict || verdict->released);
                           });
}

void HostDesk::contend(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide) {
    Registration* holder = find(id);
    if (!holder) return decide(true);
    const auto now = services_.queue.now();
    const GuessLimiter::Try attempt{id, claim.source, services_.seen.markOf(id)};
    const bool isGuess = !claim.password.empty();
    if (isGuess && services_.limiter.admit(attempt, now) == GuessLimiter::Verdict::allowed) {
        if (SeenHosts::proves(holder->proof, id, claim.password)) {
            services_.limiter.right(attempt, now);
            return decide(true);
        }
        const auto mark = GuessLimiter::markOf(id, claim.password);
        services_.link.sendToAll(nodes::encode(nodes::Guess{hostIdOf(id), claim.source, mark}));
        if (services_.limiter.wrong(id, claim.source, mark, now)) warn(id);
    }
    if (holder->contest) return decide(false);
    holder->contest = std::make_unique<Contest>();
    holder->contest->decide = std::move(decide);
    holder->contest->limit = services_.queue.after(parameters_.signOfLife, alive_.guard([this, id] {
        if (Registration* silent = find(id)) {
            silent->port->close(CloseReason::policy, "no sign of life");
            remove(id, Departure::lost);
        }
    }));
    holder->port->probe();
}

void HostDesk::claim(HostNumber id, const nodes::Claim& claim, UniqueFunction<void(bool)> decide) {
    contend(id, claim, alive_.guard([this, id, decide = std::move(decide)](bool free) mutable {
        if (Registration* holder = free ? find(id) : nullptr) {
            displace(*holder->port);
            remove(id, Departure::lost);
        }
        decide(free);
    }));
}

void HostDesk::heardFrom(SocketId socket) {
    if (Registration* host = find(socket)) settleContest(*host);
}

void HostDesk::settleContest(Registration& host) {
    if (const auto contest = std::exchange(host.contest, nullptr)) contest->decide(false);
}

void HostDesk::displace(ClientPort& port) {
    bySocket_.erase(port.id());
    displaced_.insert(port.id());
    refuse(port, "busy", "This Mac's ID is now in use elsewhere.");
}

void HostDesk::enter(const std::shared_ptr<ClientPort>& port, HostNumber id,
                     const rendezvous::HostCreate& create) {
    Registration* host = find(id);
    if (host && host->port->id() != port->id()) {
        // It may have come while this one was waiting for other nodes.
        if (!SeenHosts::proves(host->proof, id, create.password)) {
            displaced_.insert(port->id());
            return refuse(*port, "busy", "This Mac's ID is in use elsewhere.");
        }
        displace(*host->port);
    }
    if (!host) {
        host = &hosts_[id];
        services_.link.listenAt(id);
        registered_.add(1);
    }
    const auto record = services_.seen.remember(id, create.password, services_.clock());
    services_.link.sendToAll(nodes::encode(nodes::Seen{SeenHosts::lineOf(id, record)}));
    services_.limiter.right({id, port->address().network, services_.seen.markOf(id)}, services_.queue.now());
    const bool moved = host->port != port;
    host->port = port;
    host->proof = record.proof;
    host->hostname = printableLine(create.hostname, longestName);
    host->available = create.available;
    bySocket_[port->id()] = id;
    displaced_.erase(port->id());
    registrations_.add();
    port->settle();
    say(*host, rendezvous::SessionCreated{.id = hostIdOf(id), .publicAddress = port->address().text});
    // What it was asked over its old socket it may never have heard.
    if (moved && host->asked) say(*host, requestFor(*host->asked));
    if (moved) settleContest(*host);
}

void HostDesk::receive(SocketId socket, const rendezvous::HostAvailability& availability) {
    if (Registration* host = find(socket)) host->available = availability.available;
}

void HostDesk::leave(SocketId socket, Departure departure) {
    claims_.erase(socket);
    displaced_.erase(socket);
    if (const auto found = bySocket_.find(socket); found != bySocket_.end()) remove(found->second, departure);
}

void HostDesk::remove(HostNumber id, Departure departure) {
    auto host = hosts_.extract(id);
    Registration& gone = host.mapped();
    bySocket_.erase(gone.port->id());
    services_.link.leave(id);
    services_.seen.refresh(id, services_.clock());
    registered_.add(-1);
    const rendezvous::ToClient word = departure == Departure::hangup
                                          ? rendezvous::ToClient(rendezvous::PeerLeft{})
                                          : rendezvous::ToClient(offline);
    if (gone.asked) services_.tellViewer(gone.asked->node, gone.asked->clientId, word);
    for (const auto& viewer : gone.waiting) services_.tellViewer(viewer.node, viewer.clientId, word);
    // A viewer that has been accepted needs its host, and no longer this service.
    if (departure == Departure::hangup) {
        for (const auto& viewer : gone.sessions) services_.tellViewer(viewer.node, viewer.clientId, word);
    }
    if (gone.contest) gone.contest->decide(true);
}

// Introducing

nodes::Verdict HostDesk::ask(HostNumber id, const nodes::Ask& ask) {
    using Kind = nodes::Verdict::Kind;
    Registration* host = find(id);
    if (!host) return {Kind::absent};
    if (!SeenHosts::proves(host->proof, id, ask.password)) return {Kind::wrongPassword};
    if (!host->available) return {Kind::away};
    if (ask.clientId.empty()) return {Kind::here};
    if (host->waiting.size() >= parameters_.mostWaiting) return {Kind::busy};
    introductions_.add();
    host->waiting.push_back({.clientId = ask.clientId,
                             .node = ask.node,
                             .clientName = printableLine(ask.clientName, longestName),
                             .clientAddress = ask.clientAddress,
                             .agent = ask.agent});
    askNext(id, *host);
    return {Kind::here, host->hostname};
}

rendezvous::JoinRequest HostDesk::requestFor(const Introduction& introduction) const {
    return {.clientId = introduction.clientId,
            .clientName = introduction.clientName,
            .clientAddress = introduction.clientAddress,
            .agent = introduction.agent};
}

void HostDesk::askNext(HostNumber id, Registration& host) {
    if (host.asked || host.waiting.empty()) return;
    host.asked = std::move(host.waiting.front());
    host.waiting.erase(host.waiting.begin());
    host.answerLimit =
        services_.queue.after(parameters_.answer, alive_.guard([this, id] { giveUpAsking(id); }));
    say(host, requestFor(*host.asked));
}

void HostDesk::giveUpAsking(HostNumber id) {
    Registration* host = find(id);
    if (!host || !host->asked) return;
    unanswered_.add();
    services_.tellViewer(host->asked->node, host->asked->clientId, offline);
    host->asked.reset();
    askNext(id, *host);
}

void HostDesk::receive(SocketId socket, const rendezvous::Accept& accept) {
    Registration* host = find(socket);
    // An answer about a viewer that has left or was given up is nothing to anybody.
    if (!host || !host->asked || host->asked->clientId != accept.clientId) return;
    accepted_.add();
    host->answerLimit.reset();
    const Introduction viewer = *std::exchange(host->asked, std::nullopt);
    const HostNumber id = bySocket_.at(socket);

    rendezvous::Accepted accepted{.sessionToken = randomHex(32)};
    if (const auto relay = services_.relay(id)) accepted.relay = rendezvous::RelayOffer(*relay);
    rendezvous::Accepted toHost = accepted;
    toHost.clientId = viewer.clientId;
    accepted.hostCandidates = usable(accept.candidates);

    const auto now = services_.queue.now();
    std::erase_if(host->sessions,
                  [&](const Session& session) { return now - session.since >= parameters_.session; });
    if (host->sessions.size() >= parameters_.mostSessions) host->sessions.erase(host->sessions.begin());
    host->sessions.push_back({viewer.clientId, viewer.node, now});
    say(*host, toHost);
    services_.tellViewer(viewer.node, viewer.clientId, accepted);
    askNext(id, *host);
}

void HostDesk::receive(SocketId socket, const rendezvous::Reject& reject) {
    Registration* host = find(socket);
    if (!host || !host->asked) return;
    rejected_.add();
    host->answerLimit.reset();
    const Introduction viewer = *std::exchange(host->asked, std::nullopt);
    services_.tellViewer(viewer.node, viewer.clientId,
                         rendezvous::Rejected{.message = printableLine(reject.message, longestMessage)});
    askNext(bySocket_.at(socket), *host);
}

void HostDesk::viewerIsAt(HostNumber id, const std::string& clientId, const std::string& mapped) {
    Registration* host = find(id);
    if (!host || !isSocketAddress(mapped)) return;
    for (Session& session : host->sessions) {
        if (session.clientId != clientId || ++session.addresses > mostPunches) continue;
        say(*host, rendezvous::ViewerCandidates{mapped});
    }
}

void HostDesk::viewerLeft(HostNumber id, const std::string& clientId) {
    Registration* host = find(id);
    if (!host) return;
    std::erase_if(host->waiting, [&](const auto& viewer) { return viewer.clientId == clientId; });
    if (host->asked && host->asked->clientId == clientId) {
        host->asked.reset();
        host->answerLimit.reset();
        say(*host, rendezvous::PeerLeft{});
        return askNext(id, *host);
    }
    const auto session = std::find_if(host->sessions.begin(), host->sessions.end(),
                                      [&](const auto& one) { return one.clientId == clientId; });
    if (session == host->sessions.end()) return;
    // "peer_left" names nobody, and ends what the host does for the viewer that came last.
    const bool isNewest = std::next(session) == host->sessions.end() && !host->asked;
    host->sessions.erase(session);
    if (isNewest) say(*host, rendezvous::PeerLeft{});
}

void HostDesk::warn(HostNumber id) {
    if (Registration* host = find(id)) say(*host, rendezvous::SecurityNotice{});
}

void HostDesk::refreshSeen() {
    const auto now = services_.clock();
    for (const auto& [id, host] : hosts_) services_.seen.refresh(id, now);
}

}  // namespace velmora
