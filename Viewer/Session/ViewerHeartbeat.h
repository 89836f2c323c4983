#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "Viewer/Session/AdaptiveBitrate.h"
#include "Viewer/Session/ViewerMediaPath.h"

namespace velmora {

/// The beat of a running stream, once a second: a ping, the figures of the last second, and what they say
/// about the bit rate that the host may use. Owned by ViewerConnection; lives on the main queue.
class ViewerHeartbeat {
public:
    struct Parameters {
        std::chrono::milliseconds interval{1000};
        std::chrono::milliseconds shortestPeriod{100};  // a rate over less is noise
    };
    /// The queue outlives us.
    ViewerHeartbeat(Queue& main, const Parameters& parameters) : main_(main), parameters_(parameters) {}
    explicit ViewerHeartbeat(Queue& main) : ViewerHeartbeat(main, Parameters{}) {}

    /// The last thing that a beat does; may destroy us.
    std::function<void(const ViewerStats::Snapshot&)> onSnapshot;

    /// A path has won: from now on this is where pings and hints go.
    void use(std::shared_ptr<MessageConnection> connection, std::shared_ptr<ViewerMediaPath> media);

    /// Begins with the first stream; afterwards tells what it has become.
    void setStream(ViewerStats::Stream stream);
    void countLostFrame() { ++lostFrames_; }
    /// The kind of path allows no more than this.
    void limitBitrate(std::int64_t mbps, std::string_view reason);
    void stop();

private:
    void scheduleBeat();
    void beat();
    void sendPing();
    void adaptTo(const ViewerStats::Snapshot& snapshot);
    void sendHint(std::int64_t mbps);

    Queue& main_;
    const Parameters parameters_;
    std::shared_ptr<MessageConnection> connection_;
    std::shared_ptr<ViewerMediaPath> media_;
    AdaptiveBitrate adaptive_;
    std::optional<ViewerStats::Stream> stream_;  // none until it runs
    int lostFrames_ = 0;                         // since the last beat
    HostClock::time_point lastTake_;
    TimerToken timer_;  // held exactly while a stream runs
};

}  // namespace velmora
