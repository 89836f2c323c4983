#include "Host/FrameSender.h"

#include <algorithm>
#include <utility>

#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Transport/QUICSetup.h"

namespace velmora {

FrameSender::FrameSender(std::shared_ptr<MessageConnection> connection, std::shared_ptr<DatagramFlow> flow,
                         const Queue& clock)
    : connection_(std::move(connection)), flow_(std::move(flow)), clock_(clock) {}

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
            SentFrame& sent = sentFrames_[frame];
            sent = {packets, std::vector<std::uint64_t>(packets.size()), clock_.now()};
            for (std::uint64_t& order : sent.orders) order = ++handedOver_;
            sentFrames_.erase(frame - historyLength);
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

void FrameSender::sendCopy(std::uint32_t frame) {
    Packets packets;
    {
        const std::lock_guard guard(lock_);
        const auto found = sentFrames_.find(frame);
        if (found == sentFrames_.end()) return;
        packets = found->second.packets;
        for (std::uint64_t& order : found->second.orders) order = ++handedOver_;
        found->second.lastSent = clock_.now();
    }
    // Without a tag: what is told as lost is the original.
    flow_->send(std::move(packets), 0);
}

bool FrameSender::resend(const Nack& nack) {
    // Behind megabytes that wait, a repair comes too late, and a viewer that never stops asking must not
    // make the queue grow for ever.
    if (!flow_ || flow_->pendingBytes() > BackPressure::Parameters().maxPendingBytes) return false;
    const PathStatistics path = flow_->statistics();
    // Datagrams leave in the order in which they were handed over, and their ends are told in about that
    // order too: so many are not under way any more.
    const std::uint64_t ended = path.datagramsAcked + path.datagramsLost + path.datagramsDropped;
    Packets chosen;
    {
        const std::lock_guard guard(lock_);
        const auto found = sentFrames_.find(nack.frame);
        if (found == sentFrames_.end()) return false;
        SentFrame& sent = found->second;
        const bool isOld = clock_.now() - sent.lastSent > longestUnderWay;
        const auto choose = [&](std::size_t at) {
            if (sent.orders[at] > ended && !isOld) return;
            chosen.push_back(sent.packets[at]);
            sent.orders[at] = ++handedOver_;
        };
        if (nack.indices.empty()) {
            for (std::size_t at = 0; at < sent.packets.size(); ++at) choose(at);
        }
        for (const int index : nack.indices) {
            // One request can name a packet 65535 times.
            if (chosen.size() == sent.packets.size()) break;
            if (const auto at = static_cast<std::size_t>(index); at < sent.packets.size()) choose(at);
        }
        if (chosen.empty()) return false;
        sent.lastSent = clock_.now();
    }
    flow_->send(std::move(chosen), nack.frame);
    return true;
}

BackPressure::Load FrameSender::load() const {
    BackPressure::Load load;
    std::int64_t streamBytes = connection_->pendingBytes();
    if (flow_) streamBytes -= connection_->pendingBulk();  // which the datagrams need not wait for
    load.streamBytes = static_cast<std::size_t>(std::max<std::int64_t>(streamBytes, 0));
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
