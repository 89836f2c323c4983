#pragma once

#include <fmt/format.h>

#include <optional>

#include "Platform/JpegEncoder.h"

namespace velmora {

/// Its files say in words what they would show: "640x480 from 0,0 1280x960".
class FakeJpegEncoder final : public JpegEncoder {
public:
    std::optional<Failure> failure;  // given instead of a file

    Result<Bytes> encode(const Picture& picture, const PixelRect& from, PixelSize size) override {
        if (failure) return *failure;
        if (!isOn(picture, from) || size.width <= 0 || size.height <= 0) return Failure{"nothing to encode"};
        return bytesOf(fmt::format("{}x{} from {},{} {}x{}", size.width, size.height, from.x, from.y,
                                   from.width, from.height));
    }
};

}  // namespace velmora
