#include "Testing/SimulatedPath.h"

#include <algorithm>

namespace velmora {

using namespace std::chrono_literals;

std::vector<HostClock::duration> SimulatedPath::carryDatagram(ByteView datagram, HostClock::time_point now) {
    if (dropsDatagram && dropsDatagram(datagram)) {
        packetsDropped += 1;
        return {};
    }
    std::vector<HostClock::duration> arrivals;
    if (const auto first = carry(datagram.size(), now)) arrivals.push_back(*first);
    if (!arrivals.empty() && happens(conditions.duplication)) arrivals.push_back(arrivals.front() + 1ms);
    return arrivals;
}

std::optional<HostClock::duration> SimulatedPath::carryStreamData(std::size_t size,
                                                                  HostClock::time_point now) {
    return carry(size, now);
}

std::optional<HostClock::duration> SimulatedPath::carry(std::size_t size, HostClock::time_point now) {
    // Chance is drawn for every packet, so that a cut or a full queue does not shift what follows it.
    const bool isLost = happens(conditions.loss);
    const auto jitter =
        conditions.jitter.count() == 0
            ? HostClock::duration{0}
            : HostClock::duration(static_cast<std::int64_t>(random_()) % (conditions.jitter.count() + 1));
    HostClock::duration queueing{0};
    bool overflows = false;
    if (conditions.bitsPerSecond) {
        const auto wireSize = static_cast<double>(size + packetOverhead);
        const auto waiting = std::max(busyUntil_ - now, HostClock::duration{0});
        overflows = static_cast<double>(waiting.count()) + microsFor(wireSize) >
                    microsFor(static_cast<double>(conditions.queueLimit));
        if (!overflows && !isDead) {
            queueing = waiting + HostClock::duration(static_cast<std::int64_t>(microsFor(wireSize) + 0.5));
            busyUntil_ = now + queueing;
        }
    }
    if (isDead || isLost || overflows) {
        packetsDropped += 1;
        return std::nullopt;
    }
    packetsCarried += 1;
    return queueing + conditions.delay + jitter;
}

std::size_t SimulatedPath::congestionWindow(HostClock::duration rtt) const {
    if (conditions.congestionWindow) return *conditions.congestionWindow;
    if (!conditions.bitsPerSecond) return 4 * 1024 * 1024;
    const auto held = static_cast<std::size_t>(static_cast<double>(*conditions.bitsPerSecond) / 8e6 *
                                               static_cast<double>(rtt.count()));
    return std::max<std::size_t>(16 * 1024, held + std::min(held, conditions.queueLimit / 2));
}

HostClock::duration SimulatedPath::pacingWait(std::size_t size) const {
    if (conditions.congestionWindow || !conditions.bitsPerSecond) return HostClock::duration{0};
    return HostClock::duration(
        static_cast<std::int64_t>(microsFor(static_cast<double>(size + packetOverhead)) / 1.25));
}

double SimulatedPath::microsFor(double bytes) const {
    return bytes * 8e6 / static_cast<double>(*conditions.bitsPerSecond);
}

bool SimulatedPath::happens(double share) {
    // Not std::bernoulli_distribution: its results differ between libraries.
    return share > 0 && static_cast<double>(random_()) < share * 4294967296.0;
}

}  // namespace velmora
