#pragma once

#include <memory>

#include "Platform/ScreenCapture.h"

namespace velmora {

/// Captures of the session this process runs in. In a session whose screen cannot be read, a capture says so
/// when it is started.
std::unique_ptr<ScreenCaptureFactory> makeScreenCaptureFactory();

}  // namespace velmora
