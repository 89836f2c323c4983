#include "Viewer/Session/ViewerHeartbeat.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {

void ViewerHeartbeat::use(std::shared_ptr<MessageConnection> connection,
                          std::shared_ptr<ViewerMediaPath> media) {
    connection_ = std::move(connection);
    media_ = std::move(media);
}

void ViewerHeartbeat::setStream(ViewerStats::Stream stream) {
    const bool begins = !stream_;
    stream_ = std::move(stream);
    if (!begins) return;
    lastTake_ = main_.now();
    sendPing();  // so that the first figures can tell of the network already
    scheduleBeat();
}

void ViewerHeartbeat::limitBitrate(std::int64_t mbps, std::string_view reason) {
    debugLog(fmt::format("Connection is {}: asking the host for at most {} Mbit/s", reason, mbps));
    adaptive_.limitTo(static_cast<double>(mbps));
    sendHint(mbps);
}

void ViewerHeartbeat::stop() {
    timer_.reset();
    connection_.reset();
    media_.reset();
}

void ViewerHeartbeat::scheduleBeat() {
    timer_ = main_.after(parameters_.interval, [this] { beat(); });
}

void ViewerHeartbeat::beat() {
    scheduleBeat();
    sendPing();
    const auto now = main_.now();
    const auto period = std::max<HostClock::duration>(now - lastTake_, parameters_.shortestPeriod);
    lastTake_ = now;
    const auto snapshot = media_->stats().take(*stream_, period);
    adaptTo(snapshot);
    if (onSnapshot) onSnapshot(snapshot);
}

void ViewerHeartbeat::sendPing() {
    connection_->send(MessageType::ping, Ping{.viewerMicros = main_.nowMicros()}.encode());
}

void ViewerHeartbeat::adaptTo(const ViewerStats::Snapshot& snapshot) {
    const auto change = adaptive_.update({.frames = snapshot.frames,
                                          .resendRequests = snapshot.resendRequests,
                                          .lostFrames = std::exchange(lostFrames_, 0),
                                          .networkP95 = snapshot.networkP95});
    if (!change) return;
    debugLog(fmt::format("Bitrate {} Mbit/s ({})", change->mbps, change->reason));
    sendHint(change->mbps);
}

void ViewerHeartbeat::sendHint(std::int64_t mbps) {
    connection_->sendJSON(MessageType::bitrateHint, BitrateHint{.maxMbps = mbps});
}

}  // namespace velmora
