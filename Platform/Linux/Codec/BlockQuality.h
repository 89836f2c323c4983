#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "Platform/Picture.h"

namespace velmora {

/// Remembers for each 16x16 block of a stream how finely it was last coded, and marks which blocks a new
/// picture leaves as they were. Encoders tell a quantiser per picture; what the viewer sees is made of many
/// pictures, and a fine update of one word leaves the rest of the screen as coarse as it was.
class BlockQuality {
public:
    explicit BlockQuality(PixelSize size);

    /// The blocks that `damage` touches become 0, all others `constantFlag`. Rectangles may reach outside.
    void markDamage(std::span<const PixelRect> damage, std::uint8_t constantFlag);
    std::uint8_t* marks() { return marks_.data(); }

    /// After a picture coded at `quantizer`: damaged blocks have it now; the others are only ever improved,
    /// since an encoder leaves alone what is already better. `whole` as if everything had been damaged.
    void record(double quantizer, bool whole);
    double mean() const;

private:
    const int columns_, rows_;
    std::vector<std::uint8_t> marks_;
    std::vector<float> quantizers_;
};

}  // namespace velmora
