#pragma once

#include <filesystem>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// The picture as PNG, 8 bits of red, green and blue. Takes tens of milliseconds for a large one.
Result<Bytes> encodePng(const Picture& picture);

/// Writes it to a file, which is there whole or not at all; one of that name is replaced.
Status writePng(const Picture& picture, const std::filesystem::path& path);

}  // namespace velmora
