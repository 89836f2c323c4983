#pragma once

#include <cstdint>
#include <memory>

#include "Testing/LinkPipe.h"

namespace velmora {

/// A network path in user space, for benchmarks and end-to-end tests: a UDP relay on the loopback between a
/// viewer, which sends to `port()`, and a host on its own port. Each direction has a delay, random loss and a
/// bottleneck with a drop-tail queue. A thread of its own carries the packets, with the kernel's timer
/// precision (some 60 microseconds late). One viewer at a time: the last address seen gets the answers.
class UdpLinkEmulator {
public:
    using Direction = LinkPipe::Direction;
    struct Link {
        Direction toHost, toViewer;
    };

    /// Throws std::system_error when the sockets cannot be had. The same seed loses the same packets.
    UdpLinkEmulator(std::uint16_t hostPort, const Link& link, std::uint64_t seed = 1);
    ~UdpLinkEmulator();

    std::uint16_t port() const;

    /// From any thread, at any time; packets under way keep the delay they left with.
    void setLink(const Link& link);
    /// While dead everything that arrives is lost, in both directions; what is under way too.
    void setDead(bool dead);
    /// The host sees the viewer at another port from now on, as after a NAT has forgotten it.
    void changePort();

private:
    class Relay;
    std::unique_ptr<Relay> relay_;
};

}  // namespace velmora
