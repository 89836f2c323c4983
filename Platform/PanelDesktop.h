#pragma once

#include <cstdint>
#include <functional>

namespace velmora {

/// What a small window that hangs from a tray item wants of the desktop beyond what windows get. Lives on the
/// main queue.
class PanelDesktop {
public:
    /// A window by the toolkit's number.
    using WindowId = std::uintptr_t;

    virtual ~PanelDesktop() = default;

    /// Whether somebody manages windows: frames them, and brings them back that were put away.
    virtual bool managesWindows() const = 0;

    /// No task bar lists the window when it is shown next. Before each showing: the desktop forgets it.
    virtual void keepOutOfTaskBar(WindowId window) = 0;

    /// Told of each press of a mouse button, on whatever, from `startWatching` on: a click on the bare
    /// desktop moves no focus everywhere.
    std::function<void()> onPress;
    virtual void startWatching() = 0;
    virtual void stopWatching() = 0;
};

}  // namespace velmora
