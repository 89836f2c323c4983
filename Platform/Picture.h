#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace velmora {

/// Pixels. Both sides even wherever a codec is concerned.
struct PixelSize {
    int width = 0;
    int height = 0;
    bool operator==(const PixelSize&) const = default;
};

struct PixelRect {
    int x = 0, y = 0, width = 0, height = 0;
    bool isEmpty() const { return width <= 0 || height <= 0; }
    bool operator==(const PixelRect&) const = default;
};

/// An I420 image in BT.709, limited range: three planes of 8 bits, the two chroma planes at half size both
/// ways. The planes stay where they are for the picture's life; `storage` keeps whatever owns them alive (a
/// buffer, a decoder's frame). Immutable once shared between queues.
struct Picture {
    PixelSize size;
    const std::uint8_t* y = nullptr;
    const std::uint8_t* u = nullptr;
    const std::uint8_t* v = nullptr;
    int strideY = 0, strideU = 0, strideV = 0;
    std::shared_ptr<const void> storage;
};
using SharedPicture = std::shared_ptr<const Picture>;

/// A picture that is being written, 64-byte aligned rows. Freeze it with `share`.
struct PictureBuffer {
    explicit PictureBuffer(PixelSize size);
    PixelSize size;
    std::vector<std::uint8_t> bytes;
    std::uint8_t *y = nullptr, *u = nullptr, *v = nullptr;
    int strideY = 0, strideUV = 0;

    /// The same memory as a Picture; `self` keeps it alive. Whoever goes on writing must hand it over on the
    /// queue that reads.
    static SharedPicture view(const std::shared_ptr<PictureBuffer>& self);
};

inline PictureBuffer::PictureBuffer(PixelSize s) : size(s) {
    const auto aligned = [](int n) { return (n + 63) / 64 * 64; };
    const int halfHeight = (s.height + 1) / 2;
    strideY = aligned(std::max(s.width, 1));
    strideUV = aligned(std::max((s.width + 1) / 2, 1));
    const auto sizeY = static_cast<std::size_t>(strideY) * static_cast<std::size_t>(s.height);
    const auto sizeUV = static_cast<std::size_t>(strideUV) * static_cast<std::size_t>(halfHeight);
    bytes.resize(sizeY + 2 * sizeUV + 64);
    const auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
    y = bytes.data() + (64 - address % 64) % 64;
    u = y + sizeY;
    v = u + sizeUV;
    std::fill(y, u, std::uint8_t{16});
    std::fill(u, v + sizeUV, std::uint8_t{128});
}

inline SharedPicture PictureBuffer::view(const std::shared_ptr<PictureBuffer>& self) {
    return std::make_shared<Picture>(Picture{.size = self->size,
                                             .y = self->y,
                                             .u = self->u,
                                             .v = self->v,
                                             .strideY = self->strideY,
                                             .strideU = self->strideUV,
                                             .strideV = self->strideUV,
                                             .storage = self});
}

}  // namespace velmora
