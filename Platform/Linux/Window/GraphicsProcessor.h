#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

/// Whether OpenGL draws on hardware here. Asked once, on the main thread, while there is a Qt application;
/// then known. A machine without a graphics processor never loads a driver for it.
bool hasGraphicsProcessor();

/// What draws for OpenGL, as it calls itself; none: there is no OpenGL. Takes some tens of milliseconds.
std::optional<std::string> rendererOfOpenGl();

/// Whether that is a program which only plays the hardware: slower than drawing in software ourselves.
bool isSoftwareRenderer(std::string_view renderer);

}  // namespace velmora
