#pragma once

#include <QCursor>
#include <optional>

#include "VelmoraKit/Wire/CursorShape.h"

namespace velmora {

/// The host's cursor as one of ours, for a screen with `devicePixelRatio` pixels per point. None if its image
/// does not decode, is absurdly large, measures less than 2 by 2 points, or shows nothing (no alpha above
/// 16).
std::optional<QCursor> cursorOf(const CursorShape& shape, double devicePixelRatio);

}  // namespace velmora
