#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// Puts the datagrams of a video stream back together: whole frames, in order, each at most once. It works on
/// the oldest frame that has not come out: while that one is incomplete everything behind it waits, its
/// missing packets are asked for, and when it grows too old it is given up, which is told as a gap.
///
/// Frames may be given up early, always told as a gap too:
/// - after a gap nothing can be decoded before a keyframe, so a whole keyframe that waits behind a hole comes
///   out at once, and whatever is before it is dropped; one that has only begun to arrive becomes the frame
///   to repair;
/// - when more than `memoryLimit` waits, the hole at the front is not waited for any longer;
/// - nor is it when what is behind it has waited for `longestLag`. Each hole may be young and be mended in a
///   round trip, and yet many of them in a row, as a link leaves them that was dead for a second, hold up a
///   picture that a keyframe would bring up to date.
///
/// A value for one queue, usually the QUIC client's; it reads no clock. `now` is in seconds of any monotonic
/// clock. Nothing that a peer sends makes it fail: a datagram that makes no sense is dropped, or leaves its
/// frame incomplete until it is given up.
class VideoReassembler {
public:
    /// To be applied in this order.
    struct Output {
        std::vector<Nack> nacks;    // at most one
        bool gap = false;           // at least one frame was given up
        std::vector<Bytes> frames;  // encoded VideoFrame records
    };

    double nackDelay = 0.02;                          // seconds from a frame's first packet to the first Nack
    double giveUpAfter = 0.25;                        // seconds beyond which an incomplete frame is abandoned
    double longestLag = 0.4;                          // seconds that a frame may wait behind holes
    std::size_t memoryLimit = std::size_t{64} << 20;  // bytes that may wait, with their bookkeeping

    /// Takes one datagram; its bytes are kept as they are until the frame is whole.
    Output add(Bytes datagram, double now);

    /// The same decision without new data. To be called every 20 ms while `hasHole()`; at other times it does
    /// nothing.
    Output check(double now);

    /// Whether some frame is waited for, so that time alone can change something.
    bool hasHole() const { return next_ && newest_ && *newest_ >= *next_; }

    std::optional<std::uint64_t> next() const { return next_; }      // the next frame to come out
    std::optional<std::uint64_t> newest() const { return newest_; }  // the highest frame number seen

    /// What the waiting packets take, with their bookkeeping; never above `memoryLimit` after a call.
    std::size_t waitingBytes() const { return waitingBytes_; }

private:
    /// One frame that has been seen or is expected.
    struct Pending {
        std::map<std::uint16_t, Bytes> parts;  // whole datagrams, by packet index
        std::optional<std::uint16_t> count;    // absent until a packet of the frame has come
        double firstSeen = 0;  // first packet, or first check that missed the frame altogether
        std::optional<double> nackedAt;
        int nackRounds = 0;

        bool isWhole() const;
        bool isKeyframe() const;
        Bytes join() const;
    };
    using PendingFrames = std::map<std::uint64_t, Pending>;

    void store(std::uint64_t frame, std::uint16_t index, std::uint16_t count, Bytes datagram, double now);
    void remove(PendingFrames::iterator frame);
    void giveUpBefore(std::uint64_t frame, Output& output);
    bool skipToKeyframe(const Pending& front, Output& output);
    std::optional<Nack> nackDue(std::uint32_t frame, const Pending& pending, double now) const;

    PendingFrames pending_;
    // Wider than the wire's numbers, so that the one after the last is no special case.
    std::optional<std::uint64_t> next_;
    std::optional<std::uint64_t> newest_;
    // The newest of which the first packet, or all, has come. They may name a frame that is already out.
    std::optional<std::uint64_t> begunKeyframe_, wholeKeyframe_;
    bool awaitsKeyframe_ = false;  // a gap was told and no keyframe has come out since
    std::size_t waitingBytes_ = 0;
};

}  // namespace velmora
