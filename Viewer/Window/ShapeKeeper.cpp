#include "Viewer/Window/ShapeKeeper.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace velmora {

ShapeKeeper::ShapeKeeper(std::function<bool()> isDragged, Queue& main, const Parameters& parameters)
    : isDragged_(std::move(isDragged)), main_(main), parameters_(parameters) {}

void ShapeKeeper::setShape(std::optional<PixelSize> shape) {
    const bool isOne = shape && shape->width > 0 && shape->height > 0;
    shape_ = isOne ? shape : std::nullopt;
    wasDragged_ = false;
    if (!shape_) rest_.reset();
}

void ShapeKeeper::windowChanged(PixelSize size, const std::optional<Limits>& limits) {
    const PixelSize last = std::exchange(now_, size);
    limits_ = limits;
    if (!shape_ || !isDragged_) return;
    if (!limits) {
        wasDragged_ = false;  // a title that was pulled to the edge of the screen
    } else if (!wasDragged_ && isDragged_()) {
        wasDragged_ = true;
        before_ = last;
    }
    rest_ = main_.after(parameters_.rest, [this] { settle(); });
}

void ShapeKeeper::settle() {
    if (isDragged_()) {
        rest_ = main_.after(parameters_.rest, [this] { settle(); });
        return;
    }
    if (!std::exchange(wasDragged_, false) || !limits_) return;
    const PixelSize size = shaped(before_, now_, *shape_, *limits_);
    if (size == now_) return;
    if (const auto notify = onSize) notify(size);
}

PixelSize ShapeKeeper::shaped(PixelSize before, PixelSize after, PixelSize shape, const Limits& limits) {
    const double ratio = static_cast<double>(shape.width) / shape.height;
    const double wider = std::abs(after.width - before.width) / std::max(1.0, 1.0 * before.width);
    const double higher = std::abs(after.height - before.height) / std::max(1.0, 1.0 * before.height);
    double width = wider >= higher ? after.width : after.height * ratio;
    width = std::max({width, 1.0 * limits.least.width, limits.least.height * ratio});
    width = std::min({width, 1.0 * limits.most.width, limits.most.height * ratio});
    return {std::max(static_cast<int>(std::lround(width)), limits.least.width),
            std::max(static_cast<int>(std::lround(width / ratio)), limits.least.height)};
}

}  // namespace velmora
