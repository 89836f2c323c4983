#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// Single datagrams from a local UDP port that QUIC may be using at the same time: STUN requests, punches and
/// relay tags must leave from the very port whose way in they open. One socket serves all of them.
/// Thread-safe.
class UdpPort {
public:
    struct Datagram {
        std::uint16_t localPort = 0;
        std::string host;  // an address or a name
        std::uint16_t port = 0;
        Bytes payload;
        std::chrono::milliseconds waitForReply{0};  // 0 or less: no wait
    };
    /// The reply, or nothing if none came in time or none was waited for. A failure: the port could not be
    /// had, the name not resolved, or nothing could be sent to the address; its code is the errno if any.
    using Outcome = Result<std::optional<Bytes>>;

    virtual ~UdpPort() = default;

    /// Sends once. The reply is the first datagram from that very address that is neither part of a QUIC
    /// connection nor a punch; to a STUN request an answer with its transaction comes first. `completion` is
    /// called exactly once, on `queue`, which must outlive the wait.
    virtual void exchange(Datagram datagram, Queue& queue, UniqueFunction<void(Outcome)> completion) = 0;
};

}  // namespace velmora
