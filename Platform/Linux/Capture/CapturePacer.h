#pragma once

#include <optional>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Decides when the consumer's queue is asked to capture: at once when the last capture is older than a frame
/// interval, never while it is still busy with the last one, and not at all while nothing changes. Knows no
/// thread and reads no clock.
///
/// In the long run there is one capture in each interval, with one in reserve, and never two within half an
/// interval. The reserve is for sources that draw at our own rate: counted strictly from the last capture,
/// one late wake-up would hold back every picture after it, for ever.
class CapturePacer {
public:
    using Time = HostClock::time_point;
    explicit CapturePacer(HostClock::duration interval) : interval_(interval) {}
    void setInterval(HostClock::duration interval) { interval_ = interval; }

    /// The screen changed at `when`.
    void change(Time when);
    /// The whole picture is wanted, changed or not.
    void wantWhole() { wholeWanted_ = true; }
    /// What was put off may be asked for again.
    void resume();

    /// When to ask the queue next; none while there is nothing to ask, or no answer yet.
    std::optional<Time> nextAsk() const;
    void ask();
    /// The queue's answers to `ask`: not now; or a capture, from `begin` to `end`. What changes after `begin`
    /// belongs to the next capture.
    void putOff();
    struct Capture {
        bool whole = false;
        std::optional<Time> changedAt;  // the first change that it shows
    };
    Capture begin(Time now);
    void end() { state_ = State::waiting; }
    /// Instead of `end`: it failed; the whole picture is wanted, but not before `when`.
    void retryAt(Time when);

private:
    enum class State { waiting, asked, capturing, putOff };

    HostClock::duration interval_;
    State state_ = State::waiting;
    bool resumed_ = false;  // while asked: an answer "not now" may have been overtaken
    bool wholeWanted_ = false;
    std::optional<Time> changedAt_;
    Time earned_{};  // when the next capture is paid for: an interval for each, at most one saved up
    Time last_{};    // when the last one began
};

}  // namespace velmora
