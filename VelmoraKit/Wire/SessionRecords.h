#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Wire/ByteCoding.h"
#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/MessageType.h"

namespace velmora {

/// JSON, the first message of every connection, from the viewer.
struct Hello {
    std::string name;  // of the viewer, shown on the host
    std::int64_t protocolVersion = velmoraProtocolVersion;
    std::optional<DisplayRequest>
        display;                          // wanted size of a virtual display; absent: the host's own display
    std::optional<std::string> deviceID;  // a reconnect with the same one replaces its old connection
    std::optional<std::string> sessionToken;  // from the rendezvous service, for a connection by Host ID
    std::optional<std::string> password;      // the host's 6 digits, for a connection on the local network
    std::optional<bool> audio;                // the viewer wants the host's sound
    std::optional<bool> agent;                // the viewer is a headless agent session

    Bytes encode() const;
    static Result<Hello, WireError> decode(ByteView data);
    bool operator==(const Hello&) const = default;
};

/// JSON, host to viewer: why the connection ends. A host that could not build it sends bare text instead, so
/// a payload that `decode` refuses is itself the reason to show.
struct Denied {
    std::string code;
    std::optional<std::string> message;

    Bytes encode() const;
    static Result<Denied, WireError> decode(ByteView data);
    bool operator==(const Denied&) const = default;
};

/// The host's side of `Denied`: the codes it sends, and their payload.
struct HostDenial {
    static constexpr std::string_view busy = "busy";
    static constexpr std::string_view wrongPassword = "wrong_password";
    static constexpr std::string_view locked = "locked";
    static constexpr std::string_view noPassword = "no_password";
    static constexpr std::string_view capture = "capture";

    static Bytes encode(std::string_view code, std::string_view message);
};

/// JSON, viewer to host: the highest bit rate it can use.
struct BitrateHint {
    std::int64_t maxMbps = 0;  // 0 or below: no limit

    Bytes encode() const;
    static Result<BitrateHint, WireError> decode(ByteView data);
    bool operator==(const BitrateHint&) const = default;
};

/// Host to viewer, one byte: whether a text field has the keyboard focus. Anything but a leading 1 is "no",
/// so decoding cannot fail.
struct TextFocus {
    bool focused = false;

    Bytes encode() const { return {static_cast<std::uint8_t>(focused ? 1 : 0)}; }
    static Result<TextFocus, WireError> decode(ByteView data) {
        return TextFocus{.focused = !data.empty() && data[0] == 1};
    }
    bool operator==(const TextFocus&) const = default;
};

}  // namespace velmora
