#pragma once

#include <cstdint>

#include "Platform/Picture.h"

namespace velmora {

/// Screen pixels to the codec's colours: memory order B, G, R, X to I420 in BT.709, limited range.
///
/// Luma is 16 + (8 B + 79 G + 23 R) / 128, rounded. Chroma is taken from the mean of each 2x2 block, upper
/// and lower pixel first, each mean rounded up: 128 + (112 B - 86 G - 26 R) / 256 and
/// 128 + (112 R - 102 G - 10 B) / 256, rounded. Coefficients of 7 bits keep every product sum within 16 bits,
/// which is what makes it a millisecond a picture; the result lies within one step of the exact one, and
/// greys come out without any colour. All kernels give the same bytes.
namespace Bt709 {

enum class Kernel { plain, avx2 };
bool isSupported(Kernel kernel);

/// Converts the pixels of `rect`, at the same place in `bgrx` (whose rows lie `stride` bytes apart) and in
/// `picture`. Refuses (false, nothing written) a rectangle that is not even on all four sides or reaches
/// outside the picture: chroma would bleed from pixels that are not to be touched.
bool convert(const std::uint8_t* bgrx, int stride, PictureBuffer& picture, const PixelRect& rect);
bool convert(const std::uint8_t* bgrx, int stride, PictureBuffer& picture, const PixelRect& rect,
             Kernel kernel);

}  // namespace Bt709

}  // namespace velmora
