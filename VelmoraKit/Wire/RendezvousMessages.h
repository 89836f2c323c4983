#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VelmoraKit/Wire/MessageType.h"

/// The messages by which machines that are not on one network find each other. Each is one WebSocket text
/// with one JSON object, whose "type" is the `type` of the record here. Readers are lenient: a key that is
/// missing or of the wrong JSON type has its default, unknown keys are ignored. Only without a key that is
/// required here is a message none at all.
///
/// A Host ID is nine digits. A `clientId` is any text of the service's choice. Addresses are "ip:port".
namespace velmora::rendezvous {

/// Of one message; a socket takes no longer one.
inline constexpr std::size_t longestMessage = 65536;

/// The ways in to a host, by its own account.
struct HostCandidates {
    std::vector<std::string> addresses;  // on its local network
    std::int64_t port = velmoraDefaultPort;
    bool quic = false;                  // it has its certificate
    std::string fingerprint;            // the certificate's; empty: none
    std::optional<std::string> mapped;  // its port as STUN saw it from outside; STUN may not have answered
    bool operator==(const HostCandidates&) const = default;
};

/// Where both sides may register to be connected by a relay.
struct Relay {
    std::string host;
    std::uint16_t port = 0;
    std::string token;  // pairs the two
    bool operator==(const Relay&) const = default;
};

/// A `Relay` as it was sent, which may be anything.
struct RelayOffer {
    std::optional<std::string> host;
    std::optional<std::int64_t> port;
    std::optional<std::string> token;

    RelayOffer() = default;
    explicit RelayOffer(const Relay& relay) : host(relay.host), port(relay.port), token(relay.token) {}

    bool isComplete() const { return host && port && token; }
    /// None if the offer is not complete, or its port is none of UDP's.
    std::optional<Relay> relay() const;
    bool operator==(const RelayOffer&) const = default;
};

// From a host

/// Registers the host, or replaces its registration.
struct HostCreate {
    static constexpr const char* type = "host_create";
    std::string hostId;            // required
    std::string password;          // required; six digits
    std::string hostname = "Mac";  // for people
    bool available = true;
    bool operator==(const HostCreate&) const = default;
};

struct HostAvailability {
    static constexpr const char* type = "host_availability";
    bool available = false;
    bool operator==(const HostAvailability&) const = default;
};

struct Accept {
    static constexpr const char* type = "accept";
    std::string clientId;       // required
    HostCandidates candidates;  // required
    bool operator==(const Accept&) const = default;
};

struct Reject {
    static constexpr const char* type = "reject";
    std::string message;  // for the person at the viewer
    bool operator==(const Reject&) const = default;
};

// From a viewer

struct Join {
    static constexpr const char* type = "join";
    std::string id;        // required; the Host ID
    std::string password;  // required
    std::string clientName = "Mac";
    std::string deviceId;  // one for each installation
    bool agent = false;    // an agent's session, not a person's
    bool operator==(const Join&) const = default;
};

// From either, and passed on

struct Hangup {
    static constexpr const char* type = "hangup";
    bool operator==(const Hangup&) const = default;
};

/// The viewer's port as STUN saw it, so that the host can open its NAT towards it.
struct ViewerCandidates {
    static constexpr const char* type = "candidates";
    std::string mapped;  // required
    bool operator==(const ViewerCandidates&) const = default;
};

// To a host

struct SessionCreated {
    static constexpr const char* type = "session_created";
    std::string id;                            // what the host is registered under
    std::optional<std::string> publicAddress;  // its public IP, without a port
    bool operator==(const SessionCreated&) const = default;
};

/// A viewer with the right ID and password is here.
struct JoinRequest {
    static constexpr const char* type = "join_request";
    std::string clientId;  // required
    std::string clientName = "Mac";
    std::string clientAddress = "?";  // public IP
    std::optional<bool> agent;
    bool operator==(const JoinRequest&) const = default;
};

struct SecurityNotice {
    static constexpr const char* type = "security_notice";
    std::string message = "Suspicious activity for this Mac's ID.";
    bool operator==(const SecurityNotice&) const = default;
};

// To a viewer

/// The password was right; the host is being asked.
struct JoinPending {
    static constexpr const char* type = "join_pending";
    std::optional<std::string> hostname;
    bool operator==(const JoinPending&) const = default;
};

struct Rejected {
    static constexpr const char* type = "rejected";
    std::optional<std::string> message;
    std::optional<std::string> code;
    bool operator==(const Rejected&) const = default;
};

// To both

struct Accepted {
    static constexpr const char* type = "accepted";
    std::optional<std::string> sessionToken;       // a secret for the viewer's `Hello`
    std::optional<std::string> clientId;           // to the host
    std::optional<HostCandidates> hostCandidates;  // to the viewer
    std::optional<RelayOffer> relay;               // there whenever the key is, whatever it holds
    bool operator==(const Accepted&) const = default;
};

/// An administrator ended the session.
struct AdminKick {
    static constexpr const char* type = "admin_kick";
    std::string message = "Viewer disconnected by the administrator";
    bool operator==(const AdminKick&) const = default;
};

struct PeerLeft {
    static constexpr const char* type = "peer_left";
    bool operator==(const PeerLeft&) const = default;
};

struct Error {
    static constexpr const char* type = "error";
    std::optional<std::string> message;
    std::optional<std::string> code;  // to a host, "busy": the Host ID is taken
    bool operator==(const Error&) const = default;
};

/// What the service hears.
using FromClient = std::variant<HostCreate, HostAvailability, Accept, Reject, Join, ViewerCandidates, Hangup>;
/// What hosts and viewers hear.
using ToClient = std::variant<SessionCreated, JoinRequest, Accepted, ViewerCandidates, SecurityNotice,
                              AdminKick, PeerLeft, Error, JoinPending, Rejected>;

/// Bytes that are not UTF-8 become U+FFFD, so encoding cannot fail.
std::string encode(const FromClient& message);
std::string encode(const ToClient& message);

/// None: too long, not a JSON object, no "type", an unknown one, or something required is missing.
std::optional<FromClient> decodeFromClient(std::string_view text);
std::optional<ToClient> decodeToClient(std::string_view text);
/// Whether it is a message, if of a type that no client of this version sends.
bool isOfUnknownType(std::string_view text);

}  // namespace velmora::rendezvous
