#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Host/BackPressure.h"
#include "Host/HostSession.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Transport/DatagramFlow.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// Puts encoded pictures on the wire, as datagrams if there is a flow for them, and keeps the last ones to
/// repair what got lost. Thread-safe, since a repair must not wait for the picture that is being encoded: new
/// pictures come on the capture queue, requests for repair on the connection's.
class FrameSender {
public:
    /// About two seconds at full rate; no viewer asks for anything older.
    static constexpr std::uint32_t historyLength = 120;

    /// `flow` may be none. `clock` tells the time, and outlives the sender.
    FrameSender(std::shared_ptr<MessageConnection> connection, std::shared_ptr<DatagramFlow> flow,
                const Queue& clock);

    /// Sends an encoded VideoFrame record. Its number; the first is 1.
    std::uint32_t send(const Bytes& record);
    /// Sends all packets of a frame once more without anybody having asked.
    void sendCopy(std::uint32_t frame);
    /// Sends what the viewer misses, and says whether there was anything to send. What cannot have arrived
    /// yet is no loss: a viewer asks 20 ms after a frame's first packet, while the rest of a large frame
    /// waits here or in a narrow link, and would get everything three times. It asks again.
    bool resend(const Nack& nack);

    /// What waits to leave.
    BackPressure::Load load() const;
    /// Something long, a clipboard, goes the same way beside the pictures: what the path's figures tell is
    /// not about these.
    bool sharesPath() const { return flow_ && connection_->pendingBulk() > 0; }
    /// The path's, if pictures go as datagrams.
    std::optional<PathStatistics> pathStatistics() const;

    HostSession::Statistics takeStatistics();
    void countDroppedFrame() { ++droppedFrames_; }
    /// Pictures not taken because too much waited, since the last call.
    std::uint32_t takeDroppedFrames() { return droppedFrames_.exchange(0); }

private:
    using Packets = std::vector<SharedBytes>;
    struct SentFrame {
        Packets packets;
        std::vector<std::uint64_t> orders;  // of each packet's last hand-over, among all
        HostClock::time_point lastSent;     // some or all of them
    };
    // A path that has not told of a datagram for so long is not going to.
    static constexpr std::chrono::milliseconds longestUnderWay{500};
    std::size_t payloadSize() const;

    const std::shared_ptr<MessageConnection> connection_;
    const std::shared_ptr<DatagramFlow> flow_;
    const Queue& clock_;
    std::atomic<std::uint32_t> droppedFrames_{0};
    std::uint32_t lastFrame_ = 0;  // capture queue

    mutable std::mutex lock_;  // guards what follows; nothing is called while it is held
    std::map<std::uint32_t, SentFrame> sentFrames_;
    std::uint64_t handedOver_ = 0;  // datagrams
    HostSession::Statistics statistics_;
};

}  // namespace velmora
