#pragma once

#include "Platform/Picture.h"

namespace velmora {

/// One plane of 8-bit samples, such as a luma plane or a grey image.
struct GrayView {
    const std::uint8_t* data = nullptr;
    int width = 0, height = 0, stride = 0;
};
GrayView lumaOf(const Picture& picture);

/// Structural similarity, the mean over 8x8 windows four samples apart: 1 for equal images, above 0.95 hard
/// to tell apart. 0 if the sizes differ or there is no window. `worstWindow` finds a small ruined spot.
double ssimLuma(const GrayView& a, const GrayView& b);
double ssimLuma(const Picture& a, const Picture& b);
double worstWindow(const GrayView& a, const GrayView& b);

/// Peak signal to noise ratio over all three planes, in dB; 99 for equal pictures, 0 if the sizes differ.
double psnr(const Picture& a, const Picture& b);

/// The part of `view` inside `rect`, which lies within it.
GrayView partOf(const GrayView& view, const PixelRect& rect);

}  // namespace velmora
