#pragma once

#include <set>

#include "Platform/ShortcutGrab.h"

namespace velmora {

/// An active grab of the keyboard of the X server: no other program sees a key. Refused while another one
/// grabs it, as window managers do for a moment. For a QGuiApplication on X11, on its main thread.
class X11ShortcutGrab final : public ShortcutGrab {
public:
    X11ShortcutGrab() = default;
    ~X11ShortcutGrab() override;
    X11ShortcutGrab(const X11ShortcutGrab&) = delete;
    X11ShortcutGrab& operator=(const X11ShortcutGrab&) = delete;

    bool take(WindowId window) override;
    void giveBack(WindowId window) override;

private:
    std::set<WindowId> held_;
};

}  // namespace velmora
