#pragma once

#include <QDialog>

namespace velmora {

/// What this program is called, and which version of it runs. On the main thread.
class AboutWindow final : public QDialog {
public:
    AboutWindow();

    /// Shows it above the others, with the keyboard.
    void present();
};

}  // namespace velmora
