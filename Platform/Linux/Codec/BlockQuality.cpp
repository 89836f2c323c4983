#include "Platform/Linux/Codec/BlockQuality.h"

#include <algorithm>
#include <numeric>

namespace velmora {
namespace {

constexpr int blockSide = 16;
constexpr float coarsest = 51;

}  // namespace

BlockQuality::BlockQuality(PixelSize size)
    : columns_((size.width + blockSide - 1) / blockSide),
      rows_((size.height + blockSide - 1) / blockSide),
      marks_(static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_)),
      quantizers_(marks_.size(), coarsest) {}

void BlockQuality::markDamage(std::span<const PixelRect> damage, std::uint8_t constantFlag) {
    std::fill(marks_.begin(), marks_.end(), constantFlag);
    for (const PixelRect& rect : damage) {
        if (rect.isEmpty()) continue;
        const int left = std::clamp(rect.x / blockSide, 0, columns_);
        const int right = std::clamp((rect.x + rect.width + blockSide - 1) / blockSide, 0, columns_);
        const int top = std::clamp(rect.y / blockSide, 0, rows_);
        const int bottom = std::clamp((rect.y + rect.height + blockSide - 1) / blockSide, 0, rows_);
        for (int row = top; row < bottom && left < right; ++row) {
            std::fill_n(marks_.begin() + row * columns_ + left, right - left, std::uint8_t{0});
        }
    }
}

void BlockQuality::record(double quantizer, bool whole) {
    const auto now = static_cast<float>(quantizer);
    for (std::size_t i = 0; i < marks_.size(); ++i) {
        const bool damaged = whole || marks_[i] == 0;
        quantizers_[i] = damaged ? now : std::min(quantizers_[i], now);
    }
}

double BlockQuality::mean() const {
    return std::accumulate(quantizers_.begin(), quantizers_.end(), 0.0) /
           static_cast<double>(quantizers_.size());
}

}  // namespace velmora
