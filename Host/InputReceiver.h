#pragma once

#include <functional>
#include <memory>

#include "Platform/Displays.h"
#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// What becomes of a viewer's input. One per session; lives on the input queue, where a slow keyboard may
/// hold it up without holding up repairs of the picture. Its destruction lets go of everything held.
class InputReceiver {
public:
    virtual ~InputReceiver() = default;

    /// Positions are fractions of this display from now on.
    virtual void setDisplay(DisplayId display) = 0;
    virtual void handle(const InputEvent& event) = 0;
    /// Lifts every key and button that is held.
    virtual void releaseAll() = 0;
};

struct InputReceiverOptions {
    bool agent = false;  // shortcuts mean what they mean on a Mac
};
/// Called on the input queue; may give none where input cannot be posted.
using InputReceiverFactory = std::function<std::unique_ptr<InputReceiver>(const InputReceiverOptions&)>;

/// Where a session's receiver stands on the input queue, once it has been made there.
struct InputSeat {
    std::unique_ptr<InputReceiver> receiver;
};

}  // namespace velmora
