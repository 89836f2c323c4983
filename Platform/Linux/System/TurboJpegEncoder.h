#pragma once

#include "Platform/JpegEncoder.h"

namespace velmora {

/// By libjpeg-turbo, with chroma at full resolution: coloured text on screens stays legible.
class TurboJpegEncoder final : public JpegEncoder {
public:
    static constexpr int quality = 80;

    Result<Bytes> encode(const Picture& picture, const PixelRect& from, PixelSize size) override;
};

}  // namespace velmora
