#pragma once

#include <chrono>
#include <cstdint>

namespace velmora {

/// The one clock of every wire timestamp and timer: monotonic microseconds that stand still while the
/// machine sleeps (CLOCK_MONOTONIC on Linux). A std::chrono clock, so durations keep their units.
/// Logic does not read it directly: it asks its Queue, so that tests own the time.
struct HostClock {
    using rep = std::int64_t;
    using period = std::micro;
    using duration = std::chrono::duration<rep, period>;
    using time_point = std::chrono::time_point<HostClock>;
    static constexpr bool is_steady = true;

    static time_point now();
    static std::uint64_t nowMicros() { return micros(now()); }

    /// Wire form of a moment.
    static std::uint64_t micros(time_point t) {
        return static_cast<std::uint64_t>(t.time_since_epoch().count());
    }

    /// 0 if `seconds` is not finite or not above zero, else cut to whole microseconds; a value past the
    /// range gives the largest one.
    static std::uint64_t micros(double seconds);
};

/// `t` as seconds since the clock's origin, the form in which pure state machines take "now".
inline double secondsOf(HostClock::time_point t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

}  // namespace velmora
