#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace velmora {

/// How much of a long message may be under way while pictures use the same path: as much as makes them wait
/// about `target`, in the manner of LEDBAT (RFC 6817). The connection's own congestion control fills the
/// queue of a path until it overflows, and while it does no picture gets through in time. Pure; owned by a
/// QuicConnection.
class BackgroundWindow {
public:
    struct Parameters {
        std::chrono::microseconds target{25'000};
        std::uint64_t first = 64 * 1024, least = 16 * 1024;
        double growth = 0.125, shrinkage = 0.5;  // a round trip, far from the target
    };
    BackgroundWindow() : BackgroundWindow(Parameters{}) {}
    explicit BackgroundWindow(Parameters parameters) : parameters_(parameters), bytes_(parameters.first) {}

    std::uint64_t bytes() const { return bytes_; }

    /// So many bytes have arrived, `underWay` have not yet, and the last round trip took `delay` longer than
    /// one without a queue.
    void acknowledged(std::uint64_t arrived, std::uint64_t underWay, std::chrono::microseconds delay) {
        const double room =
            std::clamp(1 - std::chrono::duration<double>(delay) / parameters_.target, -1.0, 1.0);
        starting_ = starting_ && room > 0.5;
        const double share = starting_ ? 1 : room * (room > 0 ? parameters_.growth : parameters_.shrinkage);
        const double wanted = static_cast<double>(bytes_) + static_cast<double>(arrived) * share;
        // What is not used proves nothing.
        const std::uint64_t most = std::max(bytes_, 2 * (underWay + arrived));
        bytes_ = std::clamp(static_cast<std::uint64_t>(std::max(wanted, 0.0)), parameters_.least, most);
    }

private:
    const Parameters parameters_;
    std::uint64_t bytes_;
    bool starting_ = true;  // doubles with each round trip until a queue is seen
};

}  // namespace velmora
