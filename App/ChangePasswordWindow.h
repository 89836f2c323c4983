#pragma once

#include <QDialog>
#include <functional>
#include <string>

#include "VelmoraKit/Core/Queue.h"

class QPushButton;

namespace velmora {

class DigitField;
class FormRow;

/// Asks for another password of this machine: six digits. Lives on the main queue; owned by whoever opens it.
class ChangePasswordWindow final : public QDialog {
public:
    /// `current` is there to begin with. `main` outlives the window.
    ChangePasswordWindow(Queue& main, const std::string& current);

    /// Once, in a later turn of the queue, when the window has closed: it may destroy the window. Maybe the
    /// current password, unchanged.
    std::function<void(const std::string& password)> onSave;

    /// Shows it above the others, with the keyboard.
    void present();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void showCount();
    void generate();
    void save();

    Queue& main_;
    DigitField* password_;
    FormRow* row_;
    QPushButton* save_;
    Liveness liveness_;
};

}  // namespace velmora
