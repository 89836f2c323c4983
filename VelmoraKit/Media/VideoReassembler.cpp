#include "VelmoraKit/Media/VideoReassembler.h"

#include <algorithm>

#include "VelmoraKit/Media/VideoPackets.h"

namespace velmora {

namespace {

constexpr int mostNackRounds = 4;
constexpr double leastNackInterval = 0.05;  // seconds; also kept with a very short nackDelay

/// Seconds in a double do not add up exactly; spans this close are equal, or a 20 ms timer would find a frame
/// just too young and ask a whole tick late. The clock counts microseconds.
constexpr double clockGrain = 1e-6;

/// What a waiting packet takes beside its bytes: map nodes, a vector, the allocator's headers. Rounded up,
/// since empty packets of many frames must not slip under the limit.
constexpr std::size_t bookkeepingPerPacket = 256;

std::size_t costOf(const Bytes& datagram) {
    return datagram.capacity() + bookkeepingPerPacket;
}

ByteView sliceOf(const Bytes& datagram) {
    return ByteView(datagram).subspan(VideoPackets::headerSize);
}

}  // namespace

bool VideoReassembler::Pending::isWhole() const {
    // The indices are distinct, so as many as `count` with the last one in its place are all of them. A stray
    // index beyond the count fails this, and the frame stays incomplete.
    return count && parts.size() == *count && parts.rbegin()->first == *count - 1;
}

bool VideoReassembler::Pending::isKeyframe() const {
    return !parts.empty() && parts.begin()->first == 0 && isKeyframeRecord(sliceOf(parts.begin()->second));
}

Bytes VideoReassembler::Pending::join() const {
    std::size_t size = 0;
    for (const auto& [index, datagram] : parts) size += sliceOf(datagram).size();
    Bytes record;
    record.reserve(size);
    for (const auto& [index, datagram] : parts) {
        const ByteView slice = sliceOf(datagram);
        record.insert(record.end(), slice.begin(), slice.end());
    }
    return record;
}

VideoReassembler::Output VideoReassembler::add(Bytes datagram, double now) {
    const auto header = VideoPackets::headerOf(datagram);
    if (!header) return {};
    if (!next_) next_ = header->frame;
    if (header->frame < *next_) return {};  // late or repeated: that frame is out, or was given up

    store(header->frame, header->index, header->count, std::move(datagram), now);
    newest_ = std::max<std::uint64_t>(newest_.value_or(0), header->frame);
    return check(now);
}

void VideoReassembler::store(std::uint64_t frame, std::uint16_t index, std::uint16_t count, Bytes datagram,
                             double now) {
    const auto [entry, isNew] = pending_.try_emplace(frame);
    Pending& pending = entry->second;
    if (isNew) pending.firstSeen = now;

    waitingBytes_ += costOf(datagram);
    // Packets mostly come in order, so the end is the right hint.
    const auto place = pending.parts.try_emplace(pending.parts.end(), index);
    if (!place->second.empty()) waitingBytes_ -= costOf(place->second);
    place->second = std::move(datagram);
    pending.count = count;

    // Neither is taken back when a peer changes the count or the bytes: the frame is then one more to repair.
    if (!pending.isKeyframe()) return;
    begunKeyframe_ = std::max(begunKeyframe_.value_or(0), frame);
    if (pending.isWhole()) wholeKeyframe_ = std::max(wholeKeyframe_.value_or(0), frame);
}

VideoReassembler::Output VideoReassembler::check(double now) {
    Output output;
    while (hasHole()) {
        const auto front = pending_.try_emplace(*next_, Pending{.firstSeen = now}).first;
        Pending& pending = front->second;
        if (pending.isWhole()) {
            output.frames.push_back(pending.join());
            if (isKeyframeRecord(output.frames.back())) awaitsKeyframe_ = false;
            remove(front);
            ++*next_;
            continue;
        }
        if (awaitsKeyframe_ && skipToKeyframe(pending, output)) continue;
        if (now - pending.firstSeen > giveUpAfter + clockGrain) {
            giveUpBefore(*next_ + 1, output);
            continue;
        }
        const auto behind = std::next(front);
        const bool isTooLate =
            behind != pending_.end() && now - behind->second.firstSeen > longestLag + clockGrain;
        if (isTooLate || waitingBytes_ > memoryLimit) {
            // To the next frame of which anything is here: the numbers between may be billions.
            giveUpBefore(behind == pending_.end() ? *newest_ + 1 : behind->first, output);
            continue;
        }
        if (auto nack = nackDue(static_cast<std::uint32_t>(*next_), pending, now)) {
            output.nacks.push_back(std::move(*nack));
            pending.nackedAt = now;
            ++pending.nackRounds;
        }
        break;
    }
    return output;
}

void VideoReassembler::remove(PendingFrames::iterator frame) {
    for (const auto& [index, datagram] : frame->second.parts) waitingBytes_ -= costOf(datagram);
    pending_.erase(frame);
}

void VideoReassembler::giveUpBefore(std::uint64_t frame, Output& output) {
    while (!pending_.empty() && pending_.begin()->first < frame) remove(pending_.begin());
    next_ = frame;
    output.gap = true;
    awaitsKeyframe_ = true;
}

bool VideoReassembler::skipToKeyframe(const Pending& front, Output& output) {
    // A keyframe in repair gives way to a whole one only: a link that loses a packet of each would otherwise
    // never see one through.
    const auto& target = wholeKeyframe_ > next_ || front.isKeyframe() ? wholeKeyframe_ : begunKeyframe_;
    if (!(target > next_)) return false;
    giveUpBefore(*target, output);
    return true;
}

std::optional<Nack> VideoReassembler::nackDue(std::uint32_t frame, const Pending& pending, double now) const {
    if (pending.nackRounds >= mostNackRounds) return std::nullopt;
    const double age = now - pending.nackedAt.value_or(pending.firstSeen);
    const double due = pending.nackedAt ? std::max(3 * nackDelay, leastNackInterval) : nackDelay;
    if (age < due - clockGrain) return std::nullopt;

    Nack nack{.frame = frame};
    auto part = pending.parts.begin();
    for (int index = 0; index < pending.count.value_or(0); ++index) {
        if (part != pending.parts.end() && part->first == index)
            ++part;
        else
            nack.indices.push_back(index);
    }
    return nack;
}

}  // namespace velmora
