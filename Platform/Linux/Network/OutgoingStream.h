#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// What one end sends on a stream: bytes that must stay where they are until the peer has acknowledged them,
/// because the QUIC library keeps pointers to them, and how far they have come. Offsets count from the
/// stream's start. Owned by a QuicConnection.
class OutgoingStream {
public:
    /// Nothing after the end is wanted or the peer has refused.
    void add(Bytes data);
    /// The end itself is to follow all that was added.
    void finish() { finishing_ = true; }
    /// The peer wants no more: what has not arrived is lost.
    void refuse() { refused_ = true; }

    bool wantsToWrite() const { return !refused_ && (hasBytes() || (finishing_ && !finished_)); }
    bool hasBytes() const { return accepted_ < end_; }
    std::uint64_t underWay() const { return accepted_ - std::min(accepted_, acknowledged_); }
    std::uint64_t waiting() const { return refused_ ? 0 : end_ - accepted_; }  // bytes not yet in packets

    /// What comes next, in up to `pieces.size()` pieces, and whether the stream's end goes with it.
    struct Next {
        std::size_t count = 0;
        bool isLast = false;
    };
    Next next(std::span<ByteView> pieces);
    /// So many bytes of what `next` gave are in a packet, with the end if it was the last and they are all.
    void accept(std::size_t bytes, bool isLast);
    /// All bytes before `offset` have arrived.
    void acknowledgeUpTo(std::uint64_t offset);
    /// The stream is over on both sides: everything has arrived, or it was reset.
    void close();

    std::uint64_t accepted() const { return accepted_; }
    bool isRefused() const { return refused_; }
    bool isDelivered() const { return finished_ && acknowledged_ >= end_; }

private:
    std::deque<Bytes> chunks_;    // from the first not yet acknowledged
    std::uint64_t base_ = 0;      // offset of chunks_.front()
    std::size_t nextChunk_ = 0;   // the first that is not wholly in packets
    std::uint64_t nextBase_ = 0;  // its offset
    std::uint64_t accepted_ = 0;  // put into packets
    std::uint64_t end_ = 0;       // added
    std::uint64_t acknowledged_ = 0;
    bool finishing_ = false, finished_ = false;  // the end is wanted; it is in a packet
    bool refused_ = false;
};

}  // namespace velmora
