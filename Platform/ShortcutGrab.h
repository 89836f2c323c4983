#pragma once

#include <cstdint>

namespace velmora {

/// Has all keys come to a window of ours, those of the desktop's own shortcuts too. One for the process; it
/// lives on the main queue, and nothing here waits.
class ShortcutGrab {
public:
    /// A window by the toolkit's number.
    using WindowId = std::uintptr_t;

    /// Gives everything back.
    virtual ~ShortcutGrab() = default;

    /// For the window that has the focus. True: all keys come to it now. False: refused, or not yet; who
    /// still wants them asks again after a while, which asks the desktop only once.
    virtual bool take(WindowId window) = 0;
    /// At once; also ends what was asked for and not granted yet.
    virtual void giveBack(WindowId window) = 0;
};

}  // namespace velmora
