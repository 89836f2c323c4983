#pragma once

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Makes JPEG files of pictures, sharp enough for small text. Any thread; takes tens of milliseconds.
class JpegEncoder {
public:
    virtual ~JpegEncoder() = default;

    /// The part `from` of the picture, shrunk (or grown) to `size`. A failure if `from` is not all on the
    /// picture or either is empty.
    virtual Result<Bytes> encode(const Picture& picture, const PixelRect& from, PixelSize size) = 0;

    static bool isOn(const Picture& picture, const PixelRect& part) {
        return !part.isEmpty() && part.x >= 0 && part.y >= 0 && part.width <= picture.size.width - part.x &&
               part.height <= picture.size.height - part.y;
    }
};

}  // namespace velmora
