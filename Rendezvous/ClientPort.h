#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Rendezvous/ClientAddress.h"

namespace velmora {

/// Names a socket for as long as the process runs; never used twice.
enum class SocketId : std::uint64_t {};

/// Why the service ends a WebSocket; the numbers are those of RFC 6455 section 7.4.1.
enum class CloseReason : std::uint16_t {
    normal = 1000,
    goingAway = 1001,
    notText = 1003,
    policy = 1008,
};

/// A client's WebSocket, as the logic sees it. What comes in is told to MeetingPoint by whoever made it.
/// Each call returns at once and may be made at any time, after the socket's end too.
class ClientPort {
public:
    virtual ~ClientPort() = default;

    virtual SocketId id() const = 0;
    virtual const ClientAddress& address() const = 0;
    /// One text message. A client that does not take what is sent is dropped by its port.
    virtual void send(std::string text) = 0;
    /// Asks for a sign of life now, ahead of the usual beat.
    virtual void probe() = 0;
    /// It has shown what it is here for: no longer one of the half-open ones that go first in a crush.
    virtual void settle() = 0;
    /// Closes after what was sent before. Nothing comes from it any more but its end.
    virtual void close(CloseReason code, std::string_view reason) = 0;
};

}  // namespace velmora
