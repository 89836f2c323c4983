#pragma once

#include <functional>

namespace velmora {

/// Whether the desktop has a tray now, in which programs show an item. Lives on the main queue.
class TrayPresence {
public:
    virtual ~TrayPresence() = default;
    virtual bool isThere() const = 0;
    /// `isThere` has changed; also a moment after construction, when what was there already is found.
    std::function<void()> onChange;
};

}  // namespace velmora
