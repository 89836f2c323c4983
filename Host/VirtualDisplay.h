#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Platform/Displays.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/UniqueFunction.h"
#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// A display that exists in no hardware and as long as this object: made for the size of a viewer's window,
/// and the main display while it is there. Used on the display queue.
class VirtualDisplay {
public:
    /// The mode in force, read back.
    struct Size {
        double widthPoints = 0, heightPoints = 0;
        double pixelWidth = 0, pixelHeight = 0;
    };
    virtual ~VirtualDisplay() = default;

    virtual DisplayId displayId() const = 0;
    /// Gives it the mode that fits the request best and makes it the main display. `done` runs on the
    /// display queue within some seconds: the mode, or none if it could not be set or read.
    virtual void setMode(const DisplayRequest& request, UniqueFunction<void(std::optional<Size>)> done) = 0;
};

class VirtualDisplayFactory {
public:
    virtual ~VirtualDisplayFactory() = default;
    /// No side is longer than `maxPixels`. None where the system has no such display.
    virtual std::unique_ptr<VirtualDisplay> make(int maxPixels, Queue& displayQueue) = 0;
};

}  // namespace velmora
