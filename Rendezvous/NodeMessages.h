#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

/// What nodes say to each other: a JSON object each, with its "type". A message that is no such thing is
/// dropped; all nodes of a service run the same version.
namespace velmora::nodes {

// Requests to where a host's node listens

/// Is this its password? With a `clientId` also: here is a viewer that wants to it.
struct Ask {
    static constexpr const char* type = "ask";
    std::string password;
    std::string clientId;  // empty: only asked
    std::string node;      // where the viewer is
    std::string clientName;
    std::string clientAddress;
    bool agent = false;
    bool operator==(const Ask&) const = default;
};
struct Verdict {
    static constexpr const char* type = "verdict";
    enum class Kind : std::uint8_t { absent, wrongPassword, away, busy, here };
    Kind kind = Kind::absent;
    std::string hostname;
    bool operator==(const Verdict&) const = default;
};

/// The host has turned up at another node, with this password.
struct Claim {
    static constexpr const char* type = "claim";
    std::string password;
    std::string source;  // what limits count by
    bool operator==(const Claim&) const = default;
};
struct ClaimVerdict {
    static constexpr const char* type = "claim_verdict";
    bool released = false;
    bool operator==(const ClaimVerdict&) const = default;
};

// To one node

/// A message for a viewer that is there.
struct ToViewer {
    static constexpr const char* type = "to_viewer";
    std::string clientId;
    std::string text;  // as the viewer gets it
    bool operator==(const ToViewer&) const = default;
};
/// The viewer's public address, or without one: it has left.
struct FromViewer {
    static constexpr const char* type = "from_viewer";
    std::string hostId;
    std::string clientId;
    std::optional<std::string> mapped;
    bool operator==(const FromViewer&) const = default;
};

// To all nodes

struct Guess {
    static constexpr const char* type = "guess";
    std::string hostId;
    std::string source;
    std::uint64_t mark = 0;
    bool operator==(const Guess&) const = default;
};
struct Seen {
    static constexpr const char* type = "seen";
    std::string line;  // as SeenHosts writes it
    bool operator==(const Seen&) const = default;
};

using Message = std::variant<Ask, Verdict, Claim, ClaimVerdict, ToViewer, FromViewer, Guess, Seen>;

std::string encode(const Message& message);
std::optional<Message> decode(std::string_view text);

}  // namespace velmora::nodes
