#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <utility>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// How many lines of one kind may still be written: what somebody else can cause any number of times would
/// wash everything else out of the log. What is left out is counted. Any thread.
class LineBudget {
public:
    struct Parameters {
        double mostAtOnce;
        double perSecond;
    };
    explicit LineBudget(Parameters parameters) : parameters_(parameters), left_(parameters.mostAtOnce) {}

    /// Lines left out since the last one, if another may be written now.
    std::optional<std::size_t> spend(HostClock::time_point now) {
        const std::lock_guard guard(lock_);
        if (lastSpent_) {
            const std::chrono::duration<double> since = now - *lastSpent_;
            left_ = std::min(left_ + since.count() * parameters_.perSecond, parameters_.mostAtOnce);
        }
        lastSpent_ = now;
        if (left_ < 1) {
            ++leftOut_;
            return std::nullopt;
        }
        left_ -= 1;
        return std::exchange(leftOut_, 0);
    }

private:
    const Parameters parameters_;
    std::mutex lock_;  // guards what follows
    double left_;
    std::optional<HostClock::time_point> lastSpent_;
    std::size_t leftOut_ = 0;
};

}  // namespace velmora
