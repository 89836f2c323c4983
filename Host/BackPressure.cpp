#include "Host/BackPressure.h"

#include <algorithm>

namespace velmora {

BackPressure::Verdict BackPressure::judge(const Load& load, HostClock::time_point now) {
    if (load.streamBytes == 0) {
        streamBusySince_.reset();
    } else if (!streamBusySince_) {
        streamBusySince_ = now;
    }
    if (load.flowBytes + load.streamBytes > parameters_.maxPendingBytes) return Verdict::full;
    if (load.flowAge > parameters_.maxAge) return Verdict::late;
    if (load.videoOnStream && streamBusySince_ && now - *streamBusySince_ > parameters_.maxAge) {
        return Verdict::late;
    }
    pathDrains_ = std::max(load.pathDelay, load.pathTime) > parameters_.maxPathDelay &&
                  load.pathBytes > parameters_.leastQueued;
    if (pathDrains_ && now - lastTaken_ < parameters_.longestDrain) return Verdict::late;
    return Verdict::take;
}

}  // namespace velmora
