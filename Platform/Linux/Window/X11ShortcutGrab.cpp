#include "Platform/Linux/Window/X11ShortcutGrab.h"

#include "Platform/Linux/Window/WindowById.h"

namespace velmora {

X11ShortcutGrab::~X11ShortcutGrab() {
    while (!held_.empty()) giveBack(*held_.begin());
}

bool X11ShortcutGrab::take(WindowId window) {
    if (held_.contains(window)) return true;
    QWindow* const target = windowById(window);
    if (!target || !target->setKeyboardGrabEnabled(true)) return false;
    held_.insert(window);
    return true;
}

void X11ShortcutGrab::giveBack(WindowId window) {
    if (held_.erase(window) == 0) return;
    // With a window that has gone, the server has ended its grab.
    if (QWindow* const target = windowById(window)) target->setKeyboardGrabEnabled(false);
}

}  // namespace velmora
