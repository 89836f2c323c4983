#pragma once

#include <functional>
#include <memory>

#include "VelmoraKit/Wire/CursorShape.h"

namespace velmora {

/// The picture of this machine's pointer. Lives on the main queue; nothing blocks it.
class CursorSource {
public:
    /// Ends with its destruction, which may come before its source's or after it.
    class Watch {
    public:
        virtual ~Watch() = default;
    };
    /// On the main queue. Size and hot spot are in points.
    using Told = std::function<void(CursorShape)>;

    virtual ~CursorSource() = default;

    /// Tells the picture soon, never from inside the call, and again after each change; at most every 0.05 s,
    /// then the newest. What is told again may be the same. Of a pointer without a picture, or with one that
    /// cannot be had as PNG, nothing is told.
    [[nodiscard]] virtual std::unique_ptr<Watch> watch(Told onShape) = 0;
};

}  // namespace velmora
