#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// Asks for a virtual display of the window's size once the window has come to rest, while the host's display
/// follows the window. Owned by ViewerSession; lives on the main queue.
class WindowFollower {
public:
    struct Parameters {
        std::chrono::milliseconds rest{300};  // after the last change
    };
    /// `current` is what the window would ask for now; `isDragged` whether somebody may still be pulling at
    /// its edge.
    WindowFollower(std::function<DisplayRequest()> current, std::function<bool()> isDragged, Queue& main,
                   const Parameters& parameters);
    WindowFollower(std::function<DisplayRequest()> current, std::function<bool()> isDragged, Queue& main)
        : WindowFollower(std::move(current), std::move(isDragged), main, Parameters{}) {}

    std::function<void(const DisplayRequest&)> onRequest;

    /// Whether the host shows a display that follows. Beginning to, asks at once if the size is not the one
    /// last asked for.
    void setFollowing(bool following);
    void windowChanged();
    /// What the host was asked for in another way.
    void setLastRequest(const std::optional<DisplayRequest>& request) { last_ = request; }
    const std::optional<DisplayRequest>& lastRequest() const { return last_; }

private:
    void settle();
    void askIfChanged();

    const std::function<DisplayRequest()> current_;
    const std::function<bool()> isDragged_;
    Queue& main_;
    const Parameters parameters_;
    bool following_ = false;
    std::optional<DisplayRequest> last_;
    TimerToken rest_;  // since the last change
};

}  // namespace velmora
