#pragma once

#include <cstdint>
#include <mutex>

namespace velmora {

/// Remembers the screen's beat, so that the statistics can tell when a picture really reached the glass. Told
/// on the main thread, asked on the decoder's. Seconds are those of the host clock.
class VsyncTracker {
public:
    /// The screen was refreshed at `timestamp`, and will be again at `targetTimestamp`.
    void tick(double timestamp, double targetTimestamp);

    /// When a picture decoded at `decodedMicros` is seen: at the first refresh at or after that moment.
    /// Before the first tick, at that moment itself.
    std::uint64_t displayedMicros(std::uint64_t decodedMicros) const;

private:
    mutable std::mutex lock_;  // guards both
    double lastVsync_ = 0;     // none yet
    double period_ = 1.0 / 60;
};

}  // namespace velmora
