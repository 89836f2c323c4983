#include "Host/FrameSender.h"

#include <algorithm>
#include <utility>

#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Transport/QUICSetup.h"

namespace velmora {

FrameSender::FrameSender(std::shared_ptr<MessageConnection> connection, std::shared_ptr<DatagramFlow> flow)
    : connection_(std::move(connection)), flow_(std::move(flow)) {}

std::size_t FrameSender::payloadSize() const {
    const std::size_t usable = flow_->usableDatagramFrameSize().value_or(0);
    if (usable == 0) return QUICSetup::defaultDatagramPayload;
    return usable - std::min(usable, VideoPackets::headerSize);
}

std::uint32_t FrameSender::send(const Bytes& record) {
    const std::uint32_t frame = ++lastFrame_;
    if (flow_) {
        Packets packets = VideoPackets::split(record, frame, payloadSize());
        {
            const std::lock_guard guard(lock_);
            sentPackets_[frame] = packets;
            sentPackets_.erase(frame - historyLength);
        }
        flow_->send(std::move(packets), frame);
    } else {
        connection_->send(MessageType::videoFrame, record);
    }
    const std::lock_guard guard(lock_);
    statistics_.frames += 1;
    statistics_.bytes += record.size();
    return frame;
}

FrameSender::Packets FrameSender::packetsOf(std::uint32_t frame) const {
    const std::lock_guard guard(lock_);
    const auto found = sentPackets_.find(frame);
    return found == sentPackets_.end() ? Packets() : found->second;
}

void FrameSender::sendCopy(std::uint32_t frame) {
    // Without a tag: what is told as lost is the original.
    if (Packets packets = packetsOf(frame); flow_ && !packets.empty()) flow_->send(std::move(packets), 0);
}

bool FrameSender::resend(const Nack& nack) {
    // Behind megabytes that wait, a repair comes too late, and a viewer that never stops asking must not
    // make the queue grow for ever.
    if (!flow_ || flow_->pendingBytes() > BackPressure::Parameters().maxPendingBytes) return false;
    const Packets packets = packetsOf(nack.frame);
    Packets chosen;
    if (nack.indices.empty()) chosen = packets;
    for (const int index : nack.indices) {
        // One request can name a packet 65535 times.
        if (chosen.size() == packets.size()) break;
        const auto at = static_cast<std::size_t>(index);
        if (at < packets.size()) chosen.push_back(packets[at]);
    }
    if (chosen.empty()) return false;
    flow_->send(std::move(chosen), nack.frame);
    return true;
}

BackPressure::Load FrameSender::load() const {
    BackPressure::Load load;
    load.streamBytes = static_cast<std::size_t>(std::max<std::int64_t>(connection_->pendingBytes(), 0));
    load.videoOnStream = !flow_;
    if (flow_) {
        load.flowBytes = flow_->pendingBytes();
        load.flowAge = flow_->oldestPendingAge();
    }
    return load;
}

std::optional<PathStatistics> FrameSender::pathStatistics() const {
    if (!flow_) return std::nullopt;
    return flow_->statistics();
}

HostSession::Statistics FrameSender::takeStatistics() {
    const std::lock_guard guard(lock_);
    return std::exchange(statistics_, {});
}

}  // namespace velmora
