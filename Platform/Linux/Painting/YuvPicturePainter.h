#pragma once

#include <cstdint>
#include <vector>

#include "Platform/PicturePainter.h"

namespace velmora {

/// By libyuv: at its own size a picture is converted straight into the target; for any other size it is
/// converted once, and then scaled as often as the window asks (a zoomed picture moves with the pointer).
class YuvPicturePainter final : public PicturePainter {
public:
    void paint(const SharedPicture& picture, const PixelRect& place, const PixelRect& clip,
               const PixelMemory& target) override;

private:
    void convert(const SharedPicture& picture);
    void enlarge(const PixelRect& place, const PixelRect& part, const PixelMemory& target);

    SharedPicture converted_;           // what `pixels_` shows
    std::vector<std::uint8_t> pixels_;  // without gaps between its rows
    std::vector<std::uint8_t> rows_;    // two source rows, stretched
};

}  // namespace velmora
