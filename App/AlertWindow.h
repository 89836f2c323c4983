#pragma once

#include <QDialog>
#include <functional>

#include "App/Alerts.h"

namespace velmora {

/// One alert. Whatever words are in it, it fits on the screen: what a host calls itself is cut in the middle,
/// and a long text scrolls. On the main thread.
class AlertWindow final : public QDialog {
public:
    explicit AlertWindow(const Alert& alert);

    /// Once, with the index of a button, as the last thing done; it must not destroy the window.
    std::function<void(std::size_t button)> onChosen;

    /// Shows it above the others, with the keyboard.
    void present();

    void reject() override;

private:
    void choose(std::size_t button);

    const std::size_t lastButton_;
};

}  // namespace velmora
