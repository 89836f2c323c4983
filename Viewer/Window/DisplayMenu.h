#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <optional>

#include "VelmoraKit/Wire/DisplayRecords.h"

class QMenu;

namespace velmora {

/// `words` as an entry of `menu`: not too wide, and "&" as itself rather than as the mark of a key.
QString menuEntry(const QMenu& menu, const QString& words);

/// Makes `menu` the choice of what a host shows: a display of this window's size, or one of its own. The one
/// that the host says it shows is ticked, and stays so until it says otherwise. `choose` gets none for the
/// first.
void fillDisplayMenu(QMenu& menu, const DisplayList& list,
                     const std::function<void(std::optional<std::uint32_t>)>& choose);

/// What the host shows now, in words.
QString shownDisplayOf(const DisplayList& list);

}  // namespace velmora
