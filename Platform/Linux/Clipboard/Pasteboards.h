#pragma once

#include <memory>

#include "Platform/Pasteboard.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The clipboard of the desktop that the QGuiApplication has its windows on. `main` is the queue of the
/// application's thread; it outlives the pasteboard, which goes before the application.
std::unique_ptr<Pasteboard> makePasteboard(Queue& main);

}  // namespace velmora
