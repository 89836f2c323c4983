#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Gives a window back the shape of the picture in it, when a person who pulled at its edge lets go. Owned by
/// ViewerSession; lives on the main queue.
///
/// Telling the window manager once what shape to keep (WM_NORMAL_HINTS) would be smoother, but not all do it
/// well: icewm counts the toolbar as part of the picture, and keeps the shape of a maximised window too.
class ShapeKeeper {
public:
    struct Parameters {
        std::chrono::milliseconds rest{300};  // after the last change
    };
    /// What a window may be; sizes of the picture's part, in points.
    struct Limits {
        PixelSize least, most;
    };
    /// `isDragged`: whether somebody may be pulling at the edge now; none: unknown, then nothing is done.
    ShapeKeeper(std::function<bool()> isDragged, Queue& main, const Parameters& parameters);
    ShapeKeeper(std::function<bool()> isDragged, Queue& main)
        : ShapeKeeper(std::move(isDragged), main, Parameters{}) {}

    /// Asks for a size, once for each time somebody has pulled.
    std::function<void(PixelSize)> onSize;

    /// That of the picture; none: any is right.
    void setShape(std::optional<PixelSize> shape);
    /// The picture's part has this size now; no limits: it fills the screen, and may not change.
    void windowChanged(PixelSize size, const std::optional<Limits>& limits);

    /// The size next to `after` of the given shape: a person who went from `before` to `after` meant the side
    /// that changed more. Limits rule out even the shape.
    static PixelSize shaped(PixelSize before, PixelSize after, PixelSize shape, const Limits& limits);

private:
    void settle();

    const std::function<bool()> isDragged_;
    Queue& main_;
    const Parameters parameters_;
    std::optional<PixelSize> shape_;
    PixelSize before_, now_;
    std::optional<Limits> limits_;
    bool wasDragged_ = false;
    TimerToken rest_;  // since the last change
};

}  // namespace velmora
