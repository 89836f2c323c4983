#pragma once

#include <QColor>

#include "Shared/Preferences.h"

class QWidget;

namespace velmora {

/// How the program's windows look: one style and one set of colours, light or dark. On the main queue.
namespace Appearance {

/// Distances between things are multiples of it, in points.
inline constexpr int grid = 8;

/// Gives the application its style and colours; again whenever the theme changes. `automatic` is what the
/// desktop had when this was first called.
void apply(Theme theme);

enum class StatusColor { quiet, busy, good, bad };
QColor colorOf(StatusColor color);
/// A line between areas of a window.
QColor hairlineOf(const QWidget& widget);

}  // namespace Appearance
}  // namespace velmora
