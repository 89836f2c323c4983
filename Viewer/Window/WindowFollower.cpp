#include "Viewer/Window/WindowFollower.h"

#include <utility>

namespace velmora {

WindowFollower::WindowFollower(std::function<DisplayRequest()> current, std::function<bool()> isDragged,
                               Queue& main, const Parameters& parameters)
    : current_(std::move(current)), isDragged_(std::move(isDragged)), main_(main), parameters_(parameters) {}

void WindowFollower::setFollowing(bool following) {
    if (!following) rest_.reset();
    if (std::exchange(following_, following) != following && following) askIfChanged();
}

void WindowFollower::windowChanged() {
    if (!following_) return;
    rest_ = main_.after(parameters_.rest, [this] { settle(); });
}

void WindowFollower::settle() {
    if (isDragged_ && isDragged_()) return windowChanged();
    askIfChanged();
}

void WindowFollower::askIfChanged() {
    const DisplayRequest request = current_();
    if (last_ == request) return;
    last_ = request;
    if (const auto notify = onRequest) notify(request);
}

}  // namespace velmora
