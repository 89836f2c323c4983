#include "Host/HostSignaling.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>
#include <variant>

#include "Host/StreamServer.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora {
namespace {

using Kind = HostSignaling::Status::Kind;

/// "ip:port", cut at the last colon: an IPv6 address has more of them.
std::optional<std::pair<std::string, std::uint16_t>> addressAndPort(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const std::string_view digits = text.substr(colon + 1);
    std::uint16_t port = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || stop != digits.data() + digits.size()) return std::nullopt;
    return std::pair(std::string(text.substr(0, colon)), port);
}

}  // namespace

HostSignaling::Server HostSignaling::Server::of(StreamServer& server) {
    return {.authorize = [&server](const std::string& token,
                                   const std::string& name) { server.authorize(token, name); },
            .allowsPasswordAccess = [&server] { return server.settings.allowPasswordAccess; },
            .hasViewer = [&server] { return server.connectedViewerName().has_value(); },
            .fingerprint = [&server] { return server.fingerprint(); }};
}

HostSignaling::HostSignaling(SignalingUrl url, Services services)
    : HostSignaling(std::move(url), std::move(services), Parameters()) {}

HostSignaling::HostSignaling(SignalingUrl url, Services services, Parameters parameters)
    : services_(std::move(services)),
      parameters_(parameters),
      registrationRetry_(parameters.firstRegistrationRetry),
      client_(std::move(url), services_.sockets, services_.main) {
    client_.onMessage = [this](const rendezvous::ToClient& message) {
        std::visit([this](const auto& one) { handle(one); }, message);
    };
    client_.onStateChange = [this](SignalingClient::State state, const std::optional<std::string>& reason) {
        handleState(state, reason);
    };
    identityObservation_ = services_.identity.observe([this] { registerHost(); });
}

void HostSignaling::start() {
    assertOn(services_.main);
    if (active_) return;
    active_ = true;
    const auto alive = liveness_.weak();
    setStatus({Kind::connecting});
    if (alive.expired() || !active_) return;
    client_.connect([this] { registerHost(); });
}

void HostSignaling::stop() {
    assertOn(services_.main);
    if (!active_) return;
    client_.send(rendezvous::HostAvailability{.available = false});
    client_.send(rendezvous::Hangup{});
    active_ = false;
    registrationTimer_.reset();
    client_.disconnect();
    setStatus({Kind::off});
}

void HostSignaling::registerHost() {
    assertOn(services_.main);
    if (!active_ || !services_.identity.isReady()) return;
    client_.send(rendezvous::HostCreate{.hostId = services_.identity.id(),
                                        .password = services_.identity.password(),
                                        .hostname = services_.machine.localizedName()});
}

void HostSignaling::handleState(SignalingClient::State state, const std::optional<std::string>& reason) {
    if (!active_) return;
    switch (state) {
        case SignalingClient::State::disconnected: {
            registrationTimer_.reset();  // the next connection registers anyway
            hostLog(
                fmt::format("⚠︎ Signaling connection lost: {}; retrying", reason.value_or("unknown")));
            std::string words = "Can't reach Velmora Cloud";
            if (reason) words += fmt::format(" ({})", *reason);
            return setStatus({Kind::offline, std::move(words)});
        }
        case SignalingClient::State::connecting:
            if (status_.kind != Kind::online) setStatus({Kind::connecting});
            return;
        case SignalingClient::State::connected:
            return;  // the service has yet to register us
    }
}

void HostSignaling::setStatus(Status status) {
    if (status == status_) return;
    status_ = std::move(status);
    if (const auto notify = onStatus) notify(Status(status_));
}

// The service speaks

void HostSignaling::handle(const rendezvous::SessionCreated& message) {
    if (message.id != services_.identity.id()) {
        return setStatus({Kind::offline, "Velmora Cloud assigned a different ID"});
    }
    registrationTimer_.reset();
    registrationRetry_ = parameters_.firstRegistrationRetry;
    publicAddress_ = message.publicAddress;
    hostLog(fmt::format("Online at Velmora Cloud as {}", HostIdentity::grouped(message.id)));
    setStatus({Kind::online});
}

void HostSignaling::handle(const rendezvous::JoinRequest& message) {
    const bool isOnOurNetwork = publicAddress_ && *publicAddress_ == message.clientAddress;
    if (!services_.server.allowsPasswordAccess() && !isOnOurNetwork) {
        hostLog(fmt::format("Refused “{}” ({}): this Mac is reachable only from its own network",
                            message.clientName, message.clientAddress));
        return client_.send(
            rendezvous::Reject{.message = "That Mac accepts connections only from its own network."});
    }
    pendingNames_[message.clientId] = message.clientName;
    hostLog(fmt::format("“{}” ({}) connected with the right ID and password; accepting", message.clientName,
                        message.clientAddress));
    services_.probes.mappedAddress(
        parameters_.port,
        liveness_.guard([this, clientId = message.clientId](const std::optional<std::string>& mapped) {
            accept(clientId, mapped);
        }));
}

void HostSignaling::accept(const std::string& clientId, const std::optional<std::string>& mapped) {
    hostLog(mapped ? fmt::format("Public address for QUIC: {}", *mapped)
                   : std::string("⚠︎ STUN didn't answer; no direct internet path offered"));
    const auto fingerprint = services_.server.fingerprint();
    rendezvous::HostCandidates candidates{.port = parameters_.port,
                                          .quic = fingerprint.has_value(),
                                          .fingerprint = fingerprint.value_or(""),
                                          .mapped = mapped};
    for (const auto& address : services_.addresses.localIPv4()) {
        candidates.addresses.push_back(fmt::format("{}:{}", address, parameters_.port));
    }
    client_.send(rendezvous::Accept{.clientId = clientId, .candidates = std::move(candidates)});
}

void HostSignaling::handle(const rendezvous::Accepted& message) {
    if (!message.sessionToken) return;
    const auto pending = pendingNames_.extract(message.clientId.value_or(""));
    const std::string name = pending.empty() ? "Mac" : pending.mapped();
    services_.server.authorize(*message.sessionToken, name);

    const auto relay = message.relay ? message.relay->relay() : std::nullopt;
    if (!relay) {
        if (message.relay && message.relay->isComplete()) {
            hostLog(fmt::format("⚠︎ Velmora Cloud offers a relay on an impossible port, {}",
                                *message.relay->port));
        }
        return hostLog(
            fmt::format("Session token for “{}” ready (no relay); waiting for its connection", name));
    }
    startRelayRegistration(*relay);
    hostLog(
        fmt::format("Session token for “{}” ready; registered at the relay {}:{}; waiting for its connection",
                    name, relay->host, relay->port));
}

void HostSignaling::handle(const rendezvous::ViewerCandidates& message) {
    auto place = addressAndPort(message.mapped);
    if (!place) return;
    hostLog(fmt::format("Punching towards the viewer at {}", message.mapped));
    punch(std::move(place->first), place->second, parameters_.punches);
}

void HostSignaling::handle(const rendezvous::SecurityNotice& message) {
    hostLog(fmt::format("⚠︎ {}", message.message));
    if (const auto notify = onSecurityNotice) notify(std::string(message.message));
}

void HostSignaling::handle(const rendezvous::AdminKick& message) {
    hostLog(fmt::format("⚠︎ Velmora Cloud: {}", message.message));
    if (const auto notify = onAdminKick) notify();
}

void HostSignaling::handle(const rendezvous::PeerLeft&) {
    pendingNames_.clear();
    relayTimer_.reset();
}

void HostSignaling::handle(const rendezvous::Error& message) {
    const std::string text = message.message.value_or("Unknown error");
    hostLog(fmt::format("⚠︎ Velmora Cloud: {}", text));
    const bool isTaken = message.code == "busy";
    if (!isTaken && status_.kind == Kind::online) return;  // about something else
    registerLater();
    if (isTaken) setStatus({Kind::offline, text});
}

void HostSignaling::registerLater() {
    if (!active_) return;
    registrationTimer_ = services_.main.after(registrationRetry_, [this] { registerHost(); });
    registrationRetry_ = std::min(2 * registrationRetry_, parameters_.longestRegistrationRetry);
}

// Ways in

void HostSignaling::punch(std::string host, std::uint16_t port, int remaining) {
    services_.probes.sendFromPort(
        {.localPort = parameters_.port, .host = host, .port = port, .payload = relayTags::punch()});
    if (remaining <= 1) return;
    // Viewers may come at once, each with punches of its own.
    const auto id = ++lastPunch_;
    punchTimers_[id] =
        services_.main.after(parameters_.punchInterval, [this, id, host = std::move(host), port, remaining] {
            punchTimers_.erase(id);
            punch(host, port, remaining - 1);
        });
}

void HostSignaling::startRelayRegistration(const rendezvous::Relay& relay) {
    relayStarted_ = services_.main.now();
    sendToRelay(relay, parameters_.relayReplyLimit, [](const Bytes& reply) {
        hostLog(relayTags::isAcknowledgement(reply) ? "Relay confirmed this Mac's registration"
                                                    : "⚠︎ Relay answered unexpectedly");
    });
    hostLog(
        fmt::format("Registering at the relay {}:{} from UDP {}", relay.host, relay.port, parameters_.port));
    relayTimer_ =
        services_.main.after(parameters_.relayInterval, [this, relay] { repeatRelayRegistration(relay); });
}

void HostSignaling::repeatRelayRegistration(const rendezvous::Relay& relay) {
    const bool expired = services_.main.now() - relayStarted_ > parameters_.relayLifetime;
    if (services_.server.hasViewer() || expired) return;
    sendToRelay(relay, std::chrono::milliseconds(0), nullptr);
    relayTimer_ =
        services_.main.after(parameters_.relayInterval, [this, relay] { repeatRelayRegistration(relay); });
}

void HostSignaling::sendToRelay(const rendezvous::Relay& relay, std::chrono::milliseconds waitForReply,
                                std::function<void(const Bytes&)> reply) {
    services_.probes.sendFromPort({.localPort = parameters_.port,
                                   .host = relay.host,
                                   .port = relay.port,
                                   .payload = relayTags::registration(relay.token),
                                   .waitForReply = waitForReply},
                                  std::move(reply));
}

}  // namespace velmora
