#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// The picture as PNG, 8 bits of red, green and blue. Takes tens of milliseconds for a large one.
Result<Bytes> encodePng(const Picture& picture);

/// The same of pixels 0xAARRGGBB whose colours are multiplied with their alpha, row by row, as X has them;
/// with alpha. Fewer pixels than `size` has are a failure.
Result<Bytes> encodePng(PixelSize size, std::span<const std::uint32_t> premultiplied);

/// Writes it to a file, which is there whole or not at all; one of that name is replaced.
Status writePng(const Picture& picture, const std::filesystem::path& path);

}  // namespace velmora
