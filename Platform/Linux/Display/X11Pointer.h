#pragma once

#include <memory>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// The pointer as the X server knows it, over whatever window: a program is not told of a button that its
/// window manager holds. One thread; each question is a round trip of well under a millisecond.
class X11Pointer {
public:
    /// False where there is no X server.
    bool isButtonHeld();

private:
    std::unique_ptr<XConnection> connection_;
    bool wasTried_ = false;
};

}  // namespace velmora
