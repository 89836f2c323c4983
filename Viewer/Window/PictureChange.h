#pragma once

#include "Platform/Picture.h"

namespace velmora {

/// The smallest rectangle, of even places and sides where the picture has them, outside of which both
/// pictures are the same: what is worth drawing of the second. All of it if the sizes differ, and empty if
/// nothing changed. An encoder leaves untouched blocks bit for bit as they were, so this is small while
/// somebody types. Reads both pictures once.
PixelRect changedPart(const Picture& before, const Picture& after);

}  // namespace velmora
