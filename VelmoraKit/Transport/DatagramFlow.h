#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/TransportState.h"

namespace velmora {

/// What the path has been doing, for rate control. Cumulative counts since the connection began.
struct PathStatistics {
    std::chrono::microseconds smoothedRtt{0}, minRtt{0}, latestRtt{0};
    std::uint64_t datagramsSent = 0;  // put into packets
    std::uint64_t datagramsAcked = 0;
    std::uint64_t datagramsLost = 0;     // declared lost; a late acknowledgement may prove some wrong
    std::uint64_t datagramsDropped = 0;  // never sent: too large for the path
    std::uint64_t bytesSent = 0;         // datagram payload put into packets
    std::uint64_t congestionWindow = 0;
    std::uint64_t bytesInFlight = 0;
};

/// The unordered, unreliable datagrams of a connection group: whole or not at all.
/// Callbacks arrive on the queue given to `start`.
class DatagramFlow {
public:
    virtual ~DatagramFlow() = default;

    std::function<void(TransportState, const std::optional<TransportError>&)> onState;
    /// A datagram, or a receive error that does not end the flow by itself (EMSGSIZE).
    std::function<void(Bytes)> onDatagram;
    /// The send queue has become empty after holding something.
    std::function<void()> onDrained;
    /// Datagrams handed to `send` that were declared lost, by the tag they were sent with.
    std::function<void(std::uint64_t tag)> onLost;

    virtual void start(Queue& queue) = 0;

    /// Queues datagrams for sending, in order, as one hand-over; any thread. Empty ones are dropped: the
    /// library below cannot carry them. One larger than the path allows is dropped and counted.
    /// `tag` (the frame number of video) comes back in `onLost`; 0 means none.
    virtual void send(std::vector<SharedBytes> datagrams, std::uint64_t tag) = 0;

    /// Bytes given to `send` and not yet accepted into a packet; any thread.
    virtual std::size_t pendingBytes() const = 0;
    /// How long the oldest of those bytes has waited; 0 if there are none; any thread.
    virtual std::chrono::microseconds oldestPendingAge() const = 0;

    /// Largest datagram that fits now; absent if the connection does not tell. Any thread.
    virtual std::optional<std::size_t> usableDatagramFrameSize() const = 0;
    virtual PathStatistics statistics() const = 0;  // any thread

    virtual TransportState state() const = 0;
    virtual void cancel() = 0;
};

}  // namespace velmora
