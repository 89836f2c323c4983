#pragma once

#include <ngtcp2/ngtcp2.h>
#include <ngtcp2/ngtcp2_crypto.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Linux/Network/BackgroundWindow.h"
#include "Platform/Linux/Network/DatagramLedger.h"
#include "Platform/Linux/Network/DatagramQueue.h"
#include "Platform/Linux/Network/OutgoingStream.h"
#include "Platform/Linux/Network/PacketBatch.h"
#include "Platform/Linux/Network/QuicTls.h"
#include "Platform/Linux/Network/SocketAddress.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Transport/DatagramFlow.h"
#include "VelmoraKit/Transport/TransportState.h"

namespace velmora {

/// One end of one QUIC connection, as a state machine: packets and the time go in, packets and events come
/// out. No socket, no thread, no clock of its own; owned by a QuicSession on the network thread, or by a
/// test that plays both ends in virtual time. What it does against the library's weaknesses is told at the
/// top of QuicConnection.cpp.
class QuicConnection {
public:
    static constexpr std::size_t idLength = 8;  // of the connection IDs that we choose

    struct Parameters {
        std::chrono::milliseconds idleTimeout = QUICSetup::idleTimeout;
        std::chrono::milliseconds handshakeTimeout{10'000};
        std::chrono::milliseconds keepAlive{5'000};  // a quarter of the idle time-out: three may be lost
        std::size_t maxDatagramFrame = QUICSetup::maxDatagramFrameSize;
        std::uint64_t streamWindow = 64 * 1024;  // what a peer that nobody reads can make us hold
        /// A stream that has more to send takes turns with the datagrams: a clipboard of many megabytes must
        /// not stop the picture, while a key press, a cursor's shape or a list of displays need not wait.
        std::uint64_t longMessage = 32 * 1024;
        std::chrono::milliseconds datagramsRest{200};  // no datagram for so long: they need no room
        std::uint64_t maxStreams = 4;                  // that a viewer may open
        Bytes firstToken;             // a viewer's; ours keep none, others bring back what they got
        bool anchorDatagrams = true;  // off only to show what happens then
        std::chrono::milliseconds lossIsCertain{1'000};  // and two round trips: no acknowledgement comes now
        std::chrono::milliseconds maxLinger{1'000};      // how long a closed connection still answers
    };

    /// Why a connection is over. `clean`: either side closed with code 0.
    struct End {
        bool clean = false;
        TransportError error;
    };

    /// Told from inside the calls below; may not call back except for `grantStream`.
    class Observer {
    public:
        virtual ~Observer() = default;
        virtual void onReady() = 0;  // handshake done, protocol agreed
        virtual void onStreamData(std::int64_t stream, ByteView data, bool isLast) = 0;
        virtual void onStreamReset(std::int64_t stream, std::uint64_t code) = 0;  // the peer sends no more
        virtual void onDatagram(ByteView data) = 0;
        virtual void onDatagramLost(std::uint64_t tag) = 0;
        virtual void onConnectionId(std::string_view id) = 0;  // packets for it are ours from now on
        virtual void onConnectionIdRetired(std::string_view id) = 0;
        virtual void onEnd(const End& end) = 0;  // once; what follows is only lingering
    };

    /// A client's first packet, already judged; `header` points into the packet.
    struct Initial {
        ngtcp2_pkt_hd header{};
        std::optional<ngtcp2_cid> originalId;  // set if the client came back with our Retry token
    };

    using TimePoint = HostClock::time_point;

    static Result<std::unique_ptr<QuicConnection>> connectTo(const SocketAddress& remote,
                                                             const SocketAddress& local,
                                                             std::shared_ptr<const QuicTls> tls,
                                                             Observer& observer, const Parameters& parameters,
                                                             TimePoint now);
    static Result<std::unique_ptr<QuicConnection>> accept(const Initial& initial, const SocketAddress& remote,
                                                          const SocketAddress& local,
                                                          std::shared_ptr<const QuicTls> tls,
                                                          Observer& observer, const Parameters& parameters,
                                                          TimePoint now);
    ~QuicConnection();
    QuicConnection(const QuicConnection&) = delete;
    QuicConnection& operator=(const QuicConnection&) = delete;

    /// A UDP packet that carries one of our connection IDs. `write` afterwards.
    void receive(ByteView packet, const SocketAddress& from, TimePoint now);
    /// One round of writing: everything that congestion control and pacing let go now, streams first unless
    /// they have much to send.
    void write(PacketBatch& out, TimePoint now);
    /// When to call `handleDeadline` and `write` at the latest.
    TimePoint deadline() const;
    void handleDeadline(TimePoint now);
    /// Ends the connection with an application code; the next `write` tells the peer.
    void close(std::uint64_t code);

    bool isReady() const { return ready_; }
    bool isOver() const { return phase_ != Phase::open; }
    /// Neither reads nor writes any more: to be destroyed.
    bool isGone() const { return phase_ == Phase::gone; }
    /// Where the peer is now; changes when its NAT does.
    SocketAddress remote() const;

    /// None before the connection is ready and when the peer allows no more.
    std::optional<std::int64_t> openStream();
    void sendOnStream(std::int64_t stream, Bytes data);
    /// Nothing more will be sent; the end itself travels after all data.
    void finishStream(std::int64_t stream);
    /// The peer may send `bytes` more on this stream. The peer is told once more than half of the first
    /// window has come together, so a peer that is to go on needs that much.
    void grantStream(std::int64_t stream, std::uint64_t bytes);
    /// How many bytes handed to `sendOnStream` have been put into packets.
    std::uint64_t acceptedOnStream(std::int64_t stream) const;
    /// The peer has acknowledged everything and the end was sent.
    bool isStreamDelivered(std::int64_t stream) const;
    /// The peer wants no more of it: what is sent on it is lost.
    bool isStreamRefused(std::int64_t stream) const;

    /// Empty datagrams are dropped here: the library ends the process over them.
    void queueDatagrams(std::vector<SharedBytes> datagrams, std::uint64_t tag, TimePoint now) {
        datagrams_.add(std::move(datagrams), tag, now);
    }
    void discardQueuedDatagrams() { datagrams_.clear(); }
    std::size_t pendingDatagramBytes() const { return datagrams_.bytes(); }
    std::optional<TimePoint> oldestPendingDatagram() const { return datagrams_.oldest(); }
    /// Largest datagram that fits the path now; none if the peer takes none.
    std::optional<std::size_t> usableDatagramSize() const;
    PathStatistics statistics() const;

private:
    enum class Phase { open, closing, draining, gone };
    struct Callbacks;
    QuicConnection(std::shared_ptr<const QuicTls> tls, Observer& observer, const Parameters& parameters,
                   const SocketAddress& local, const SocketAddress& remote);
    Status attachTls();
    ngtcp2_path pathTo(const SocketAddress& remote);
    void fail(int status, std::string_view what, TimePoint now);
    void end(Phase next, End end, TimePoint now);
    void lingerFrom(TimePoint now);
    void writeClose(PacketBatch& out, TimePoint now);
    ngtcp2_ssize writePacket(std::span<std::uint8_t> room, ngtcp2_path& path, ngtcp2_tstamp time);
    ngtcp2_ssize writeStream(std::int64_t id, OutgoingStream& stream, std::span<std::uint8_t> room,
                             ngtcp2_path& path, ngtcp2_tstamp time, bool& again);
    ngtcp2_ssize writeDatagram(std::span<std::uint8_t> room, ngtcp2_path& path, ngtcp2_tstamp time,
                               bool& again);
    /// None: there is none that could be written.
    std::optional<ngtcp2_ssize> writeDatagrams(std::span<std::uint8_t> room, ngtcp2_path& path,
                                               ngtcp2_tstamp time);
    bool isLong(const OutgoingStream& stream) const { return stream.waiting() > parameters_.longMessage; }
    void widenBackground(const OutgoingStream& stream, std::uint64_t arrived);
    void settleOverdueDatagrams(TimePoint now);
    void tellLost(std::uint64_t tag);
    bool becomeReady();

    const std::shared_ptr<const QuicTls> tls_;
    Observer& observer_;
    const Parameters parameters_;
    const SocketAddress local_;
    SocketAddress remote_;
    ngtcp2_crypto_conn_ref reference_{};
    QuicTls::Session session_;
    ngtcp2_conn* connection_ = nullptr;  // freed before session_, which it uses

    Phase phase_ = Phase::open;
    bool ready_ = false;
    bool wrongProtocol_ = false;
    std::optional<ngtcp2_connection_close_error> closeToSend_;
    Bytes closePacket_;
    std::uint64_t packetsWhileClosing_ = 0;
    bool repeatClose_ = false;
    TimePoint lingerUntil_{};

    std::map<std::int64_t, OutgoingStream> streams_;
    DatagramQueue datagrams_;
    bool anchorPending_ = false;
    bool datagramsAreDue_ = false;  // a stream that has much to send had its turn
    BackgroundWindow background_;   // for such a stream
    TimePoint lastDatagram_{};
    DatagramLedger sentDatagrams_;
    bool pathIsAlive_ = false;  // something of ours has been acknowledged by the packet being read
    PathStatistics counts_;
};

}  // namespace velmora
