#pragma once

#include <deque>
#include <memory>

#include "App/Alerts.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

class AlertWindow;

/// Alerts in windows. The next one comes when the one that is shown has been answered; one that nobody waits
/// for is not shown twice at a time.
class QtAlerts final : public Alerts {
public:
    /// `main` outlives the alerts.
    explicit QtAlerts(Queue& main);
    ~QtAlerts() override;

    /// `chosen` runs in a later turn of the queue, and may destroy the alerts.
    void show(Alert alert, std::function<void(std::size_t button)> chosen = {}) override;

    /// The one that is seen now, or none.
    AlertWindow* window() const { return window_.get(); }

private:
    struct Pending {
        Alert alert;
        std::function<void(std::size_t button)> chosen;
    };
    void showNext();
    void answer(std::size_t button);

    Queue& main_;
    std::deque<Pending> pending_;  // the first is being shown, or has just been answered
    std::unique_ptr<AlertWindow> window_;
    Liveness liveness_;
};

}  // namespace velmora
