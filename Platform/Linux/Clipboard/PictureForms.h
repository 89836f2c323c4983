#pragma once

#include <optional>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// Pictures from one file format into another, by what Qt and its plugins read and write. Any thread; a large
/// picture takes a tenth of a second. Nothing for what is no picture, or would not fit into 256 MB.

/// The PNG file of a TIFF, BMP or JPEG file, or of another that Qt reads.
std::optional<Bytes> pngOf(ByteView picture);
/// The TIFF file of a PNG file.
std::optional<Bytes> tiffOf(ByteView png);

}  // namespace velmora
