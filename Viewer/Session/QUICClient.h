#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// One attempt of a viewer to reach a host at one address, and then, if it is the one that is kept, the road
/// of the video: datagrams, their reassembly and repair. Owned by ViewerConnection, on the main queue.
class QUICClient {
public:
    struct Attempt {
        std::string label;  // "LAN ...", "Direct ..." or "Relay ...", for log lines and the kind of path
        Endpoint endpoint;
        QUICSetup::Verification verification;
        std::optional<std::uint16_t> localPort = {};
    };
    /// Run on the client's queue, one at a time; must not block there.
    struct VideoHandlers {
        std::function<void(Bytes record)> onFrame;  // a whole encoded VideoFrame
        std::function<void()> onGap;                // frames were given up: a keyframe is needed
        std::function<void(const Nack&)> onNack;    // to be sent to the host
    };

    /// `queue` ("velmora.quic.client") and `main` outlive the client and everything taken from its group.
    QUICClient(Attempt attempt, TransportStack& stack, Queue& queue, Queue& main);
    ~QUICClient();  // cancels
    QUICClient(const QUICClient&) = delete;
    QUICClient& operator=(const QUICClient&) = delete;

    /// On the main queue; either may destroy the client. `onFailed` also comes when a connection that was
    /// ready fails later.
    std::function<void(QUICClient&)> onReady;
    std::function<void(QUICClient&, const std::string& reason)> onFailed;

    void start();

    /// The control stream, not yet started; none if the connection has ended. Say hello on it before
    /// `startVideo`, so that both leave in one packet.
    std::shared_ptr<Stream> openControlStream() { return group_->openStream(); }

    /// Only after `onReady`, once. Without datagrams between the two sides it logs so and does nothing: the
    /// host then sends its frames as messages.
    void startVideo(VideoHandlers handlers);

    /// Stops the timers, then the flow, then the connection; no callback runs afterwards on the main queue.
    /// May be repeated.
    void cancel();

    const std::string& label() const { return label_; }
    Queue& queue() const { return queue_; }
    ConnectionGroup& group() const { return *group_; }

private:
    class VideoReceiver;

    const std::string label_;
    Queue& queue_;
    Queue& main_;
    const std::shared_ptr<ConnectionGroup> group_;
    std::shared_ptr<VideoReceiver> video_;  // lives on queue_
    Liveness alive_;                        // on main_
};

}  // namespace velmora
