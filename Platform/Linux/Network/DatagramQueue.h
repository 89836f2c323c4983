#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Datagrams that wait for a packet, in the order of their arrival; the QUIC library never queues one. Owned
/// by a QuicConnection.
class DatagramQueue {
public:
    using TimePoint = HostClock::time_point;
    struct Entry {
        SharedBytes bytes;  // at least one
        std::uint64_t tag;
        TimePoint since;
    };

    /// Empty ones are dropped: the library ends the process over them.
    void add(std::vector<SharedBytes> datagrams, std::uint64_t tag, TimePoint now) {
        for (SharedBytes& datagram : datagrams) {
            if (!datagram || datagram->empty()) continue;
            bytes_ += datagram->size();
            entries_.push_back({std::move(datagram), tag, now});
        }
    }
    void clear() {
        entries_.clear();
        bytes_ = 0;
    }

    bool isEmpty() const { return entries_.empty(); }
    const Entry& front() const { return entries_.front(); }
    void dropFront() {
        bytes_ -= entries_.front().bytes->size();
        entries_.pop_front();
    }

    std::size_t bytes() const { return bytes_; }
    std::optional<TimePoint> oldest() const {
        if (entries_.empty()) return std::nullopt;
        return entries_.front().since;
    }

private:
    std::deque<Entry> entries_;
    std::size_t bytes_ = 0;
};

}  // namespace velmora
