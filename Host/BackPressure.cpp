#include "Host/BackPressure.h"

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
    return Verdict::take;
}

}  // namespace velmora
