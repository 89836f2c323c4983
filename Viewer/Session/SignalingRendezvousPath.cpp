#include "Viewer/Session/SignalingRendezvousPath.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <random>
#include <utility>
#include <variant>

#include "Shared/Preferences.h"
#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora {

SignalingRendezvousPath::SignalingRendezvousPath(Ladder& ladder, SignalingUrl url, Services services)
    : SignalingRendezvousPath(ladder, std::move(url), services, Parameters()) {}

SignalingRendezvousPath::SignalingRendezvousPath(Ladder& ladder, SignalingUrl url, Services services,
                                                 Parameters parameters)
    : ladder_(ladder),
      services_(services),
      parameters_(std::move(parameters)),
      client_(std::move(url), services_.sockets, services_.main) {}

RendezvousPath::Factory SignalingRendezvousPath::factory(SignalingUrl url, Services services) {
    return [url = std::move(url), services](Ladder& ladder) {
        return std::make_unique<SignalingRendezvousPath>(ladder, url, services);
    };
}

std::uint16_t SignalingRendezvousPath::randomLocalPort() {
    std::random_device source;
    return std::uniform_int_distribution<std::uint16_t>(50000, 60000)(source);
}

void SignalingRendezvousPath::start(const std::string& hostID) {
    assertOn(services_.main);
    hostID_ = hostID;
    client_.onMessage = [this](const rendezvous::ToClient& message) {
        std::visit([this](const auto& one) { handle(one); }, message);
    };
    client_.onStateChange = [this](SignalingClient::State state, const std::optional<std::string>& reason) {
        handleState(state, reason);
    };
    client_.connect([this] { join(); });
}

void SignalingRendezvousPath::hangUp() {
    assertOn(services_.main);
    liveness_.renew();
    directTimer_.reset();
    relayTimer_.reset();
    raceTimer_.reset();
    client_.onMessage = nullptr;
    client_.onStateChange = nullptr;
    client_.send(rendezvous::Hangup{});
    client_.disconnect();
}

void SignalingRendezvousPath::join() {
    debugLog("Signaling connected; sending Host ID and password");
    const ViewerOptions& options = ladder_.options();
    client_.send(rendezvous::Join{.id = hostID_,
                                  .password = options.password.value_or(""),
                                  .clientName = options.clientName,
                                  .deviceId = ladder_.deviceID(),
                                  .agent = options.agent});
}

void SignalingRendezvousPath::handleState(SignalingClient::State state,
                                          const std::optional<std::string>& reason) {
    if (state != SignalingClient::State::disconnected) return;
    // The service has done its part; to join anew would call the host a second time.
    if (ladder_.hasConnection()) return client_.disconnect();
    debugLog(fmt::format("⚠︎ Can't reach Velmora Cloud: {}", reason.value_or("unknown")));
    ladder_.end(ConnectionError::noInternet());
}

// The service speaks

void SignalingRendezvousPath::handle(const rendezvous::JoinPending& message) {
    debugLog(fmt::format("Password accepted by Velmora Cloud; waiting for “{}”",
                         message.hostname.value_or(ladder_.options().name)));
    ladder_.reportConnecting();
}

void SignalingRendezvousPath::handle(const rendezvous::Accepted& message) {
    if (accepted_) return;  // one race is enough, whatever a service says
    accepted_ = true;
    ladder_.setSessionToken(message.sessionToken);
    const std::string& name = ladder_.options().name;
    const auto candidates = message.hostCandidates.value_or(rendezvous::HostCandidates{});
    debugLog(fmt::format("“{}” accepted; its addresses: {}{}", name,
                         candidates.addresses.empty()
                             ? std::string("none")
                             : fmt::format("{}", fmt::join(candidates.addresses, ", ")),
                         message.relay ? "; relay available" : ""));
    if (!candidates.quic || candidates.fingerprint.empty())
        return ladder_.end(ConnectionError::outdated(name));

    // With it the host can be trusted on the local network, without the service.
    services_.preferences.set(PreferenceKeys::hostFingerprint(hostID_), candidates.fingerprint);
    race(candidates, message.relay);
}

void SignalingRendezvousPath::handle(const rendezvous::Rejected& message) {
    const std::string& name = ladder_.options().name;
    if (message.message.value_or("").find("own network") != std::string::npos) {
        return ladder_.end(ConnectionError::onlyLocalNetwork(name));
    }
    const auto words = message.message.value_or(fmt::format("{} declined the connection.", name));
    ladder_.end(ConnectionError::fromSignaling(message.code, words, name));
}

void SignalingRendezvousPath::handle(const rendezvous::Error& message) {
    debugLog(
        fmt::format("⚠︎ Velmora Cloud: {} {}", message.code.value_or("?"), message.message.value_or("")));
    if (ladder_.hasConnection()) return;
    ladder_.end(ConnectionError::fromSignaling(message.code, message.message, ladder_.options().name));
}

void SignalingRendezvousPath::handle(const rendezvous::AdminKick&) {
    ladder_.end(ConnectionError::endedByService(ladder_.options().name));
}

void SignalingRendezvousPath::handle(const rendezvous::PeerLeft&) {
    if (ladder_.hasConnection()) return;  // which tells for itself
    ladder_.end(ConnectionError::endedByHost(ladder_.options().name));
}

// The race. An attempt that fails ends nothing; only the limit does.

void SignalingRendezvousPath::race(const rendezvous::HostCandidates& candidates,
                                   const std::optional<rendezvous::RelayOffer>& offer) {
    fingerprint_ = candidates.fingerprint;
    raceTimer_ = services_.main.after(parameters_.raceLimit, [this] {
        if (ladder_.hasWinner()) return;
        const auto seconds = std::chrono::duration<double>(parameters_.raceLimit).count();
        debugLog(fmt::format("⚠︎ No QUIC connection after {} s (tried: {})", seconds,
                             ladder_.attemptedLabels()));
        ladder_.end(ConnectionError::unreachable(ladder_.options().name));
    });
    const auto count = std::min(candidates.addresses.size(), parameters_.mostAddresses);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string& address = candidates.addresses[i];
        attempt("LAN " + address, RemoteDevices::endpointFor(address), std::nullopt);
    }
    if (candidates.mapped) tryDirect(*candidates.mapped);
    if (offer) tryRelay(*offer, count > 0 ? parameters_.relayPatience : std::chrono::milliseconds(0));
}

void SignalingRendezvousPath::tryDirect(const std::string& hostMapped) {
    const std::uint16_t localPort = parameters_.drawLocalPort();
    services_.probes.mappedAddress(
        localPort, liveness_.guard([this, hostMapped, localPort](const std::optional<std::string>& mapped) {
            if (!ladder_.hasWinner()) punched(hostMapped, localPort, mapped);
        }));
}

/// Our side of the hole opens with the attempt itself, even if we don't know how it looks from outside.
void SignalingRendezvousPath::punched(const std::string& hostMapped, std::uint16_t localPort,
                                      const std::optional<std::string>& mapped) {
    debugLog(fmt::format("Our public address: {}; host's: {}",
                         mapped.value_or("unknown (STUN didn't answer)"), hostMapped));
    if (mapped) client_.send(rendezvous::ViewerCandidates{.mapped = *mapped});
    directTimer_ = services_.main.after(parameters_.punchHeadStart, [this, hostMapped, localPort] {
        if (ladder_.hasWinner()) return;
        directPort_ = localPort;
        attempt("Direct " + hostMapped, RemoteDevices::endpointFor(hostMapped), localPort);
    });
}

void SignalingRendezvousPath::reopenDirect() {
    if (!directPort_) return;
    services_.probes.mappedAddress(
        *directPort_, liveness_.guard([this](const std::optional<std::string>& mapped) {
            if (!mapped) return;
            debugLog(fmt::format("Nothing heard from the host; our public address: {}", *mapped));
            client_.send(rendezvous::ViewerCandidates{.mapped = *mapped});
        }));
}

void SignalingRendezvousPath::tryRelay(const rendezvous::RelayOffer& offer,
                                       std::chrono::milliseconds patience) {
    if (!offer.isComplete()) return;
    const auto relay = offer.relay();
    if (!relay) {
        return debugLog(
            fmt::format("⚠︎ Velmora Cloud offers a relay on an impossible port, {}", *offer.port));
    }
    if (patience.count() == 0) return registerAtRelay(*relay);
    relayTimer_ = services_.main.after(patience, [this, relay = *relay] { registerAtRelay(relay); });
}

void SignalingRendezvousPath::registerAtRelay(const rendezvous::Relay& relay) {
    if (ladder_.hasWinner()) return;
    const std::uint16_t localPort = parameters_.drawLocalPort();
    debugLog(fmt::format("No direct answer yet; registering at the relay {}:{} from local port {}",
                         relay.host, relay.port, localPort));
    relayPlace_ = {relay, localPort};
    sendToRelay(parameters_.relayReplyLimit, [](const Bytes& reply) {
        debugLog(relayTags::isAcknowledgement(reply) ? "Relay confirmed the registration"
                                                     : "Relay answered unexpectedly");
    });
    relayTimer_ = services_.main.after(parameters_.relayHeadStart, [this, relay, localPort] {
        if (ladder_.hasWinner()) return;
        attempt("Relay", Endpoint::hostPort(relay.host, relay.port), localPort);
    });
}

void SignalingRendezvousPath::reopenRelay() {
    if (!relayPlace_) return;
    debugLog("Nothing heard by way of the relay; registering there once more");
    sendToRelay(std::chrono::milliseconds(0), nullptr);
}

void SignalingRendezvousPath::sendToRelay(std::chrono::milliseconds waitForReply,
                                          std::function<void(const Bytes&)> reply) {
    const auto& [relay, localPort] = *relayPlace_;
    services_.probes.sendFromPort({.localPort = localPort,
                                   .host = relay.host,
                                   .port = relay.port,
                                   .payload = relayTags::registration(relay.token),
                                   .waitForReply = waitForReply},
                                  std::move(reply));
}

void SignalingRendezvousPath::attempt(std::string label, Endpoint endpoint,
                                      std::optional<std::uint16_t> localPort) {
    ladder_.attempt({.label = std::move(label),
                     .endpoint = std::move(endpoint),
                     .fingerprint = fingerprint_,
                     .localPort = localPort});
}

}  // namespace velmora
