#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Testing/SimulatedLink.h"

namespace velmora {

class SimulatedStream;
class SimulatedFlow;
class SimulatedGroup;

/// One end of a simulated connection: everything that the objects of this side stand for. The two ends know
/// each other, and exchange nothing but packets over the link's two paths.
/// Alive while a handle, or something on its way, holds it.
class SimulatedEnd : public std::enable_shared_from_this<SimulatedEnd> {
public:
    enum class Side { connector, listener };

    SimulatedEnd(SimulatedLink& link, Side side, std::string remoteDescription)
        : link(link), side(side), remoteDescription(std::move(remoteDescription)) {}

    /// From here on this end is ready, and what it sends goes to `peer`.
    void connectTo(const std::shared_ptr<SimulatedEnd>& peer);

    /// What a group, a stream and a flow have in common towards their owner.
    struct Subject {
        TransportState state = TransportState::setup;
        Queue* queue = nullptr;  // once started
    };

    struct Outgoing {
        Bytes data;
        std::size_t taken = 0;
        Stream::SendCompletion completion;
    };
    struct StreamState : Subject {
        std::uint64_t id = 0;
        std::weak_ptr<SimulatedStream> handle;
        bool hasArrived = false;  // its owner has been told of it, or has opened it

        std::deque<Outgoing> outgoing;
        std::uint64_t sentOffset = 0;
        std::size_t unacknowledged = 0;  // packets
        bool isEnding = false;           // cancelled here: what is queued still leaves
        bool endSent = false;

        std::deque<std::uint8_t> unread;
        std::uint64_t receivedOffset = 0;
        std::map<std::uint64_t, Bytes> early;  // arrived ahead of something lost
        std::optional<std::uint64_t> endsAt;   // where the peer ended it
        std::optional<TransportError> error;   // why reading and sending fail
        bool isClosed = false;                 // the peer closed the connection: `cancelled` once all is read
        std::size_t requested = 0;
        Bytes collected;  // for the request
        Stream::ReceiveCompletion request;
        std::deque<Queue::Block> heldCompletions;  // until `start` names a queue

        bool isFinal() const { return velmora::isFinal(state); }
        bool isReadToItsEnd() const { return endsAt && receivedOffset >= *endsAt && unread.empty(); }
        std::uint64_t consumedOffset() const { return receivedOffset - unread.size(); }
    };
    using StreamPointer = std::shared_ptr<StreamState>;

    struct QueuedDatagram {
        SharedBytes data;
        std::uint64_t tag = 0;
        HostClock::time_point queuedAt;
    };
    struct FlowState : Subject {
        std::weak_ptr<SimulatedFlow> handle;
        bool isTaken = false;
        std::deque<QueuedDatagram> queued;
        std::size_t queuedBytes = 0;
        std::deque<Bytes> unheard;  // arrived before `start`
        PathStatistics statistics;
    };

    void startGroup(Queue& queue);
    void cancelGroup();
    void dropGroup();

    std::shared_ptr<SimulatedStream> openStream();
    void startStream(const StreamPointer& stream, Queue& queue);
    void sendOn(const StreamPointer& stream, Bytes data, Stream::SendCompletion completion);
    void receiveOn(const StreamPointer& stream, std::size_t count, Stream::ReceiveCompletion completion);
    void cancelStream(const StreamPointer& stream);

    std::shared_ptr<SimulatedFlow> takeFlow();
    void startFlow(Queue& queue);
    void sendDatagrams(std::vector<SharedBytes> datagrams, std::uint64_t tag);
    void cancelFlow();

    /// The end of it all, on this side: `cancelled` without an error, else `failed`.
    void end(std::optional<TransportError> error);
    bool hasEnded() const;
    void moveGroupTo(TransportState state, std::optional<TransportError> error = std::nullopt);

    SimulatedLink& link;
    const Side side;
    const std::string remoteDescription;
    Subject group;
    std::weak_ptr<SimulatedGroup> groupHandle;
    FlowState flow;

private:
    struct Segment {
        StreamPointer stream;
        std::uint64_t offset = 0;
        Bytes data;
        bool endsStream = false;
    };
    using Packet = std::variant<Segment, QueuedDatagram>;

    // Sending.
    void pumpSoon();
    void pump();
    std::optional<Packet> nextPacket();
    std::optional<Segment> nextSegment(const StreamPointer& stream);
    std::size_t transmit(Packet packet);  // its size
    void pace(std::size_t sent);
    void acknowledged(const Packet& packet, std::size_t size, HostClock::time_point sentAt);
    void lost(Packet packet, std::size_t size);
    void complete(StreamState& stream, Stream::SendCompletion completion,
                  std::optional<TransportError> error = std::nullopt);

    // Receiving.
    void arrive(const Packet& packet);
    void arriveSegment(const Segment& segment);
    void arriveDatagram(const Bytes& datagram);
    void announceStream(const StreamPointer& stream);
    void announceFlow();
    void serveRead(const StreamPointer& stream);
    void answer(StreamState& stream, Stream::Received received);

    // Ending.
    void finishCancelling(const StreamPointer& stream);
    void endStream(const StreamPointer& stream, const std::optional<TransportError>& error);
    void closeIfLastIsGone();
    void close();
    void watchForSilence();

    void moveStreamTo(const StreamPointer& stream, TransportState state,
                      std::optional<TransportError> error = std::nullopt);
    void moveFlowTo(TransportState state, std::optional<TransportError> error = std::nullopt);
    void postOnStream(StreamState& stream, Queue::Block block);
    void tellFlow(UniqueFunction<void(SimulatedFlow&)> tell);

    SimulatedPath& outPath() const;
    SimulatedPath& backPath() const;
    StreamPointer streamOf(std::uint64_t id);  // made if unknown

    std::weak_ptr<SimulatedEnd> peer_;
    std::map<std::uint64_t, StreamPointer> streams_;
    std::uint64_t nextStreamId_ = 0;
    std::deque<Segment> repetitions_;
    std::size_t bytesInFlight_ = 0;
    bool pumpIsPosted_ = false;
    bool isPacing_ = false;  // the next packet waits for its moment
    bool groupIsDropped_ = false;
    HostClock::time_point idleSince_;
    bool hasSentSinceHeard_ = false;
};

}  // namespace velmora
