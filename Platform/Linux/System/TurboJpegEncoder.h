#pragma once

#include "Platform/JpegEncoder.h"

namespace velmora {

/// By libjpeg-turbo, with chroma at full resolution: coloured text on screens stays legible.
class TurboJpegEncoder final : public JpegEncoder {
public:
    static constexpr int sharp = 80, rough = 60;  // of 100
    explicit TurboJpegEncoder(int quality = sharp) : quality_(quality) {}

    Result<Bytes> encode(const Picture& picture, const PixelRect& from, PixelSize size) override;

private:
    const int quality_;
};

}  // namespace velmora
