#include "Host/CursorWatcher.h"

#include <string_view>
#include <utility>

namespace velmora {

namespace {

/// Equal shapes have equal hashes during one run of the program.
std::size_t hashOf(const CursorShape& shape) {
    std::size_t hash =
        std::hash<std::string_view>()({reinterpret_cast<const char*>(shape.png.data()), shape.png.size()});
    // Each number has its own way in, or a hot spot at 3, 3 would hash like one at 4, 4.
    for (const double number : {shape.hotX, shape.hotY, shape.width, shape.height})
        hash = hash * 31 ^ std::hash<double>()(number);
    return hash;
}

}  // namespace

void CursorWatcher::start(Scale scale, Changed onChange) {
    assertOn(main_);
    stop();
    scale_ = std::move(scale);
    onChange_ = std::move(onChange);
    beginning_ = main_.after(firstLook, [this] {
        watch_ = source_.watch([this](CursorShape shape) { handle(std::move(shape)); });
    });
}

void CursorWatcher::stop() {
    beginning_.reset();
    watch_.reset();
    lastHash_.reset();
}

void CursorWatcher::handle(CursorShape shape) {
    const double scale = scale_ ? scale_() : 1;
    shape.width *= scale, shape.height *= scale;
    shape.hotX *= scale, shape.hotY *= scale;
    const auto hash = hashOf(shape);
    if (std::exchange(lastHash_, hash) == hash) return;
    if (const auto notify = onChange_) notify(shape);
}

}  // namespace velmora
