#pragma once

#include <memory>

#include "Platform/ShortcutGrab.h"

namespace velmora {

/// What the desktop that the QGuiApplication runs on has for it. Goes before the application.
std::unique_ptr<ShortcutGrab> makeShortcutGrab();

}  // namespace velmora
