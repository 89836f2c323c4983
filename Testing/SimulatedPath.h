#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// One direction of a link: what becomes of each packet that is put on it. It carries nothing itself; it says
/// when the packet arrives, if it does. All chance comes from one seed.
class SimulatedPath {
public:
    struct Conditions {
        HostClock::duration delay = std::chrono::milliseconds(1);
        HostClock::duration jitter{0};  // up to this much longer, each packet by itself: datagrams reorder
        double loss = 0;                // share of packets, 0...1
        double duplication = 0;         // share of datagrams that arrive twice
        std::optional<std::uint64_t> bitsPerSecond;  // of the bottleneck; none: no bottleneck
        std::size_t queueLimit = 64 * 1024;          // bytes before the bottleneck; beyond it packets drop
        /// Bytes; none: as a sender that knows the link, and then it also paces what it sends.
        std::optional<std::size_t> congestionWindow;
    };

    explicit SimulatedPath(std::uint32_t seed) : random_(seed) {}

    Conditions conditions;  // may change at any time; what is on its way keeps its fate
    /// Asked about each datagram before chance is: true drops it.
    std::function<bool(ByteView datagram)> dropsDatagram;
    /// Everything put on it now is lost.
    bool isDead = false;

    std::uint64_t packetsCarried = 0;
    std::uint64_t packetsDropped = 0;

    /// When a packet put on the path now arrives, counted from now: once, twice, or never.
    std::vector<HostClock::duration> carryDatagram(ByteView datagram, HostClock::time_point now);
    /// Stream data are never duplicated: their receiver would not notice.
    std::optional<HostClock::duration> carryStreamData(std::size_t size, HostClock::time_point now);

    /// Bytes that a sender may have on the way, `rtt` being the link's both ways while it is idle.
    std::size_t congestionWindow(HostClock::duration rtt) const;
    /// How long a sender that paces waits after `size` bytes: a quarter faster than the bottleneck, so that
    /// its queue fills and the window is what limits.
    HostClock::duration pacingWait(std::size_t size) const;

private:
    static constexpr std::size_t packetOverhead = 60;  // IP, UDP, QUIC and its seal

    double microsFor(double bytes) const;  // to pass the bottleneck
    std::optional<HostClock::duration> carry(std::size_t size, HostClock::time_point now);
    bool happens(double share);

    std::mt19937 random_;
    HostClock::time_point busyUntil_{};  // when the bottleneck has sent what it holds
};

}  // namespace velmora
