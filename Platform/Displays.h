#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

using DisplayId = std::uint32_t;

/// A display that shows something now: an active CRTC or monitor.
struct Display {
    DisplayId id = 0;       // stable while the display stays connected; never 0
    std::string name;       // what a person calls it ("DP-1", "Display 3" when nothing better is known)
    PixelRect bounds;       // in the global coordinate space that input uses
    PixelSize pixels;       // of its current mode
    bool isMain = false;    // exactly one, unless there is none
    bool isMirror = false;  // shows what another display of the list shows
    bool operator==(const Display&) const = default;
};

/// The machine's displays. Thread-safe; calls may take milliseconds and so stay off the main queue.
class Displays {
public:
    virtual ~Displays() = default;

    /// All that are active, main first, then in the system's order. A failure when there is no window
    /// system, or it cannot be asked.
    virtual Result<std::vector<Display>> list() = 0;

    /// Told on `queue`, which outlives the observation, after displays came, went, or changed mode, and when
    /// the window system ends. One observer; none stops, and called on `queue` that is at once.
    virtual void observe(Queue* queue, std::function<void()> onChange) = 0;

    std::optional<Display> find(DisplayId id) {
        auto all = list();
        if (!all) return std::nullopt;
        for (Display& display : *all) {
            if (display.id == id) return std::move(display);
        }
        return std::nullopt;
    }
    /// 0 when there is none.
    DisplayId mainDisplayId() {
        auto all = list();
        return all && !all->empty() ? all->front().id : 0;
    }
};

}  // namespace velmora
