#pragma once

#include <QDialog>
#include <chrono>
#include <functional>

#include "App/Alerts.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// One alert. Whatever words are in it, it fits on the screen: what a host calls itself is cut in the middle,
/// and a long text scrolls. Keys that were meant for another window, as it came, do not answer it. On the
/// main queue.
class AlertWindow final : public QDialog {
public:
    /// `main` outlives the window.
    AlertWindow(Queue& main, const Alert& alert);

    /// So long after it has come, keys are not for it: somebody who is typing stops within that time.
    static constexpr std::chrono::milliseconds deafTime{500};

    /// Once, with the index of a button, as the last thing done; it must not destroy the window.
    std::function<void(std::size_t button)> onChosen;

    /// Shows it above the others, with the keyboard.
    void present();

    void reject() override;

protected:
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    void choose(std::size_t button);

    Queue& main_;
    const std::size_t lastButton_;
    HostClock::time_point shownAt_;
};

}  // namespace velmora
