#include "App/QtAlerts.h"

#include <algorithm>
#include <utility>

#include "App/AlertWindow.h"

namespace velmora {

QtAlerts::QtAlerts(Queue& main) : main_(main) {}

QtAlerts::~QtAlerts() = default;

void QtAlerts::show(Alert alert, std::function<void(std::size_t button)> chosen) {
    assertOn(main_);
    const bool isTold =
        std::ranges::any_of(pending_, [&](const Pending& other) { return other.alert == alert; });
    if (isTold && !chosen) return;
    pending_.push_back({std::move(alert), std::move(chosen)});
    if (pending_.size() == 1) showNext();
}

void QtAlerts::showNext() {
    window_ = std::make_unique<AlertWindow>(main_, pending_.front().alert);
    window_->onChosen = [this](std::size_t button) { answer(button); };
    window_->present();
}

// The window is in the midst of the click. What the choice opens comes before the next alert, which then lies
// above it.
void QtAlerts::answer(std::size_t button) {
    main_.post(liveness_.guard([this, button] {
        window_.reset();
        const auto chosen = std::move(pending_.front().chosen);
        pending_.pop_front();
        if (!pending_.empty()) main_.post(liveness_.guard([this] { showNext(); }));
        if (chosen) chosen(button);
    }));
}

}  // namespace velmora
