#pragma once

namespace velmora {

/// Whether a Wayland compositor answers where the environment says that one is.
bool hasWaylandDisplay();

}  // namespace velmora
