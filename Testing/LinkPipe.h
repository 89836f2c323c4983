#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace velmora {

/// One direction of an emulated path: packets wait in the bottleneck, then fly for the delay. Without a
/// clock.
class LinkPipe {
public:
    using Clock = std::chrono::steady_clock;
    using Packet = std::vector<std::uint8_t>;
    struct Direction {
        std::chrono::microseconds delay{0};
        double loss = 0;                 // share of packets, 0 to 1
        std::int64_t bitsPerSecond = 0;  // 0: no bottleneck
        std::size_t queueBytes = 0;      // what the bottleneck holds before it drops; 0: 50 ms worth
    };
    /// The same seed loses the same packets.
    LinkPipe(Direction direction, std::uint64_t seed) : direction_(direction), random_(seed) {}

    void setDirection(const Direction& direction) { direction_ = direction; }
    void clear() { flying_.clear(); }

    void enter(Packet packet, Clock::time_point now) {
        if (std::uniform_real_distribution<>()(random_) < direction_.loss) return;
        auto leaves = now;
        if (direction_.bitsPerSecond > 0) {
            const auto perSecond = static_cast<double>(direction_.bitsPerSecond);
            const double holds =
                direction_.queueBytes > 0 ? static_cast<double>(direction_.queueBytes) * 8 / perSecond : 0.05;
            freeAt_ = std::max(freeAt_, now);
            if (std::chrono::duration<double>(freeAt_ - now).count() > holds) return;
            // 28 bytes of IP and UDP headers take their time too.
            const double takes = static_cast<double>(packet.size() + 28) * 8 / perSecond;
            freeAt_ += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(takes));
            leaves = freeAt_;
        }
        // A shortened delay must not make packets overtake each other.
        const auto arrives =
            std::max(leaves + direction_.delay, flying_.empty() ? leaves : flying_.back().first);
        flying_.emplace_back(arrives, std::move(packet));
    }
    std::optional<Clock::time_point> nextArrival() const {
        if (flying_.empty()) return std::nullopt;
        return flying_.front().first;
    }
    std::optional<Packet> arrived(Clock::time_point now) {
        if (flying_.empty() || flying_.front().first > now) return std::nullopt;
        Packet packet = std::move(flying_.front().second);
        flying_.pop_front();
        return packet;
    }

private:
    Direction direction_;
    std::mt19937_64 random_;
    Clock::time_point freeAt_{};
    std::deque<std::pair<Clock::time_point, Packet>> flying_;
};

}  // namespace velmora
