#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// The datagrams whose fate is not known yet, in the order of sending. Each is settled once.
class DatagramLedger {
public:
    using TimePoint = HostClock::time_point;

    /// Of the next one that is added.
    std::uint64_t nextId() const { return firstId_ + entries_.size(); }
    void add(std::uint64_t tag, TimePoint now) { entries_.push_back({tag, now}); }
    /// Its tag, unless it was settled before.
    std::optional<std::uint64_t> settle(std::uint64_t id) {
        if (id < firstId_ || id >= nextId()) return std::nullopt;
        Entry& entry = entries_[static_cast<std::size_t>(id - firstId_)];
        if (entry.settled) return std::nullopt;
        entry.settled = true;
        const auto tag = entry.tag;
        trim();
        return tag;
    }
    /// Settles the oldest one if it was sent before `limit`: its tag.
    std::optional<std::uint64_t> settleOldestBefore(TimePoint limit) {
        if (entries_.empty() || entries_.front().sent >= limit) return std::nullopt;
        return settle(firstId_);
    }

private:
    struct Entry {
        std::uint64_t tag = 0;
        TimePoint sent;
        bool settled = false;
    };
    void trim() {
        for (; !entries_.empty() && entries_.front().settled; ++firstId_) entries_.pop_front();
    }

    std::deque<Entry> entries_;  // the first is not settled
    std::uint64_t firstId_ = 0;
};

}  // namespace velmora
