#pragma once

#include "Tools/Pictures/PictureFolder.h"

namespace velmora {

/// The application's small windows, and its alerts.
void takeWindowPictures(PictureFolder& folder);

}  // namespace velmora
