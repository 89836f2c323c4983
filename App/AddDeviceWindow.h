#pragma once

#include <QDialog>
#include <functional>
#include <string>

#include "VelmoraKit/Core/Queue.h"

class QLineEdit;
class QPushButton;

namespace velmora {

class DigitField;
class FormRow;

/// Asks for another machine: its name, Host ID and password. Lives on the main queue; owned by whoever opens
/// it.
class AddDeviceWindow final : public QDialog {
public:
    struct Entry {
        std::string name;      // may be empty
        std::string hostID;    // nine digits
        std::string password;  // six digits
        bool connect = false;  // to it, at once
        bool operator==(const Entry&) const = default;
    };
    struct Opening {
        std::string name, hostID;  // of a machine that is known, whose password is wanted; or empty
        std::string ownHostID;     // this machine's, which makes no sense here
    };
    /// `main` outlives the window.
    AddDeviceWindow(Queue& main, const Opening& opening);

    /// Once, in a later turn of the queue, when the window has closed: it may destroy the window.
    std::function<void(const Entry&)> onConfirm;

    /// Shows it above the others, with the keyboard.
    void present();

    /// What stands in the way; empty when it is complete. All of them are told in the window, too.
    struct Problems {
        QString hostID, password;
        bool isNone() const { return hostID.isEmpty() && password.isEmpty(); }
    };
    Problems problems() const;

protected:
    bool eventFilter(QObject* object, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void showProblems();
    void confirm(bool connects);
    void askForWhatIsMissing();

    Queue& main_;
    const std::string ownHostID_;
    const bool isKnown_;  // the person has chosen a machine already
    QLineEdit* name_;
    DigitField* hostID_;
    DigitField* password_;
    FormRow* hostIDRow_;
    FormRow* passwordRow_;
    QPushButton* add_;
    QPushButton* connect_;
    bool hasLeftHostID_ = false, hasLeftPassword_ = false;  // so what is incomplete there is told
    Liveness liveness_;
};

}  // namespace velmora
