#pragma once

#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Platform/Linux/Network/FlowChannel.h"
#include "Platform/Linux/Network/GroupChannel.h"
#include "Platform/Linux/Network/NetworkLoop.h"
#include "Platform/Linux/Network/QuicConnection.h"
#include "Platform/Linux/Network/StreamChannel.h"

namespace velmora {

class LocalPort;

/// One connection group on the network thread: drives the QuicConnection, and moves bytes and events between
/// it and the channels that the owners hold. A viewer's session exists before its connection does and tries
/// the host's addresses in order. Kept alive by its port while it has a connection, and by the owners'
/// handles. Everything without another remark is called on the network thread.
class QuicSession final : public std::enable_shared_from_this<QuicSession>, private QuicConnection::Observer {
public:
    using TimePoint = HostClock::time_point;

    static constexpr std::chrono::milliseconds flushTime{500};  // for what was sent before a cancel
    /// For an address that is not the last: most of the answers that come at all come by then.
    static constexpr std::chrono::milliseconds earlyAddressTimeout{2'500};

    QuicSession(std::shared_ptr<NetworkLoop> loop, QuicConnection::Parameters parameters);

    // Any thread
    const std::shared_ptr<GroupChannel>& group() const { return group_; }
    NetworkLoop& loop() const { return *loop_; }
    void attendLater(std::shared_ptr<StreamChannel> channel);
    void attendLater(std::shared_ptr<FlowChannel> channel);
    SocketAddress remote() const;
    std::uint64_t streamWindow() const { return parameters_.streamWindow; }

    /// A viewer's way in: tries `addresses`, at least one, from `port`.
    void connectTo(std::vector<SocketAddress> addresses, LocalPort& port, std::shared_ptr<const QuicTls> tls,
                   TimePoint now);
    /// A host's: answers `initial`. False if the library wants nothing of it.
    bool accept(const QuicConnection::Initial& initial, const SocketAddress& from, LocalPort& port,
                std::shared_ptr<const QuicTls> tls, std::function<void(std::shared_ptr<QuicSession>)> onReady,
                TimePoint now);
    /// Nothing could be tried, or no more: the group fails.
    void failBeforeConnecting(const TransportError& error);

    void addStream(std::shared_ptr<StreamChannel> channel);
    void flowTaken();
    void cancel();
    void groupAbandoned();
    /// The process ends: the peer is told, nothing is waited for.
    void closeNow();

    // For the port
    /// `to`: which of this machine's addresses it came to.
    void receive(ByteView packet, const SocketAddress& from, const SocketAddress& to, TimePoint now);
    void service(PacketBatch& out, bool mayWrite, TimePoint now);
    TimePoint deadline() const;
    /// A packet to the present remote could not leave.
    void sendFailed(const SocketAddress& to, int error);
    bool isGone() const { return !connection_; }
    bool isHalfOpen() const { return connection_ && !connection_->isReady() && !connection_->isOver(); }
    /// Something said before an end is still on its way out.
    bool isFlushing() const { return connection_ && (dirty_ || (closing_ && !ended_)); }

private:
    struct Awaiting {
        std::uint64_t end;
        Stream::SendCompletion completion;
    };
    struct StreamEntry {
        std::shared_ptr<StreamChannel> channel;
        std::optional<std::int64_t> id;  // none until the connection is ready
        std::vector<Bytes> early;        // given before that
        std::uint64_t given = 0;
        std::deque<Awaiting> awaiting;
        std::optional<TimePoint> flushBy;  // set once cancelled
    };
    using Entries = std::list<StreamEntry>;

    void onReady() override { justReady_ = true; }
    void onStreamData(std::int64_t stream, ByteView data, bool isLast) override;
    void onStreamReset(std::int64_t stream, std::uint64_t code) override;
    void onDatagram(ByteView data) override { arrivedDatagrams_.emplace_back(data.begin(), data.end()); }
    void onDatagramLost(std::uint64_t tag) override;
    void onConnectionId(std::string_view id) override;
    void onConnectionIdRetired(std::string_view id) override;
    void onEnd(const QuicConnection::End& end) override { justEnded_ = end; }

    void tryNextAddress(TimePoint now);
    void settle(TimePoint now);
    void becomeReady();
    void makeFlow(FlowChannel::Parameters parameters);
    void handleEnd(const QuicConnection::End& end, TimePoint now);
    void finishAll(TransportState final, const std::optional<TransportError>& error);
    void attend(StreamChannel& channel);
    void attend(FlowChannel& channel);
    void open(StreamEntry& entry);
    void beginFlush(StreamEntry& entry);
    void reportProgress();
    void endStream(Entries::iterator entry, TransportState final, const std::optional<TransportError>& error);
    void endFlow();
    void closeIfUnused();
    void deliverDatagrams();
    Entries::iterator find(std::int64_t id);

    const std::shared_ptr<NetworkLoop> loop_;
    const QuicConnection::Parameters parameters_;
    const std::shared_ptr<GroupChannel> group_ = std::make_shared<GroupChannel>();

    LocalPort* port_ = nullptr;  // while there is a connection
    std::unique_ptr<QuicConnection> connection_;
    std::vector<std::string> ids_;
    std::shared_ptr<const QuicTls> tls_;
    std::deque<SocketAddress> addresses_;  // still to try
    std::function<void(std::shared_ptr<QuicSession>)> onReadyAtHost_;

    bool isHost_ = false;
    std::optional<SocketAddress> answerFrom_;  // a host's: where the viewer knows it
    bool isReady_ = false;
    bool closing_ = false;  // cancelled or over: nothing new begins
    bool ended_ = false;    // owners have been told
    bool dirty_ = false;    // there may be something to write
    bool justReady_ = false;
    std::optional<QuicConnection::End> justEnded_;

    Entries streams_;
    std::set<std::int64_t> arrivedStreams_;  // a viewer may open four in all
    bool hadUse_ = false;                    // a stream or flow has existed
    bool groupGone_ = false;
    std::shared_ptr<FlowChannel> flow_;
    bool flowLive_ = false;
    bool flowEnded_ = false;
    std::vector<Bytes> arrivedDatagrams_;
    std::vector<std::uint64_t> lostTags_;

    mutable std::mutex remoteMutex_;
    SocketAddress remoteNow_;
};

}  // namespace velmora
