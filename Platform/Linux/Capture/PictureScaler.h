#pragma once

#include <cstdint>
#include <vector>

#include "Platform/Picture.h"

namespace velmora {

/// Keeps a scaled copy of a screen of B, G, R, X pixels, part by part: what is scaled again after a change is
/// byte for byte what scaling the whole would have given.
class PictureScaler {
public:
    PictureScaler(PixelSize source, PixelSize picture);

    /// All pixels of the picture that the source pixels of `rect` have a part in; even.
    PixelRect reachOf(const PixelRect& rect) const;
    /// Renews the picture's rows from the whole source, whose rows lie `stride` bytes apart. Whole rows: the
    /// vector code and the code for what is left over at a row's end round differently, so that narrower
    /// pieces would show their edges.
    void scale(const std::uint8_t* source, int stride, int firstRow, int rows);

    const std::uint8_t* pixels() const { return pixels_.data(); }
    int stride() const { return picture_.width * 4; }

private:
    PixelSize source_, picture_;
    std::vector<std::uint8_t> pixels_;
};

}  // namespace velmora
