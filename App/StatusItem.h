#pragma once

#include <QRect>
#include <functional>
#include <optional>

namespace velmora {

/// The program's sign in the desktop's tray. Lives on the main queue.
class StatusItem {
public:
    virtual ~StatusItem() = default;

    /// Somebody clicked on it, with whichever button. Set once.
    std::function<void()> onClick;
    /// `isAvailable` has changed. Set once.
    std::function<void()> onAvailability;

    /// Whether the desktop has a tray that shows it. False at first where that takes a moment to learn.
    virtual bool isAvailable() const = 0;
    /// Where it is on the screen, in points; none where the desktop does not tell.
    virtual std::optional<QRect> place() const = 0;
    /// Looks pressed, as long as what it opened is open.
    virtual void setHighlighted(bool highlighted) = 0;
};

}  // namespace velmora
