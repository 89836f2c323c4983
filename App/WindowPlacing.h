#pragma once

#include <QObject>
#include <QRect>
#include <QTimer>
#include <optional>
#include <string>

#include "Platform/PreferenceStore.h"

class QWidget;

namespace velmora {

/// Shows a window above the others, with the keyboard.
void bringForward(QWidget& window);
/// In the middle of the main screen, less what the desktop keeps for itself.
void centreOnScreen(QWidget& window);

/// Remembers in the preferences where a window stood, and how large it was: "x y width height", in points.
/// Belongs to the window, which is not shown yet.
class RememberedFrame final : public QObject {
public:
    /// `preferences` outlives the window.
    RememberedFrame(QWidget& window, PreferenceStore& preferences, std::string key);

    /// Gives the window the size it last had, or `firstSize`, and puts it where it last stood if that is on a
    /// screen, else in the middle.
    void restore(QSize firstSize);

protected:
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    std::optional<QRect> remembered() const;
    void save();

    QWidget& window_;
    PreferenceStore& preferences_;
    const std::string key_;
    QTimer saving_;  // runs while the frame has changed since it was saved
};

}  // namespace velmora
