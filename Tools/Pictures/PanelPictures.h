#pragma once

#include "Tools/Pictures/PictureFolder.h"

namespace velmora {

/// The menu panel in each of its states.
void takePanelPictures(PictureFolder& folder);

}  // namespace velmora
