#include "Platform/Linux/Window/ShortcutGrabs.h"

#include <fmt/format.h>

#include <QGuiApplication>

#include "Platform/Linux/Window/WaylandShortcutGrab.h"
#include "Platform/Linux/Window/X11ShortcutGrab.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

class NoShortcutGrab final : public ShortcutGrab {
public:
    bool take(WindowId) override { return false; }
    void giveBack(WindowId) override {}
};

}  // namespace

std::unique_ptr<ShortcutGrab> makeShortcutGrab() {
    const QString platform = QGuiApplication::platformName();
    if (platform.startsWith(QLatin1String("wayland"))) return std::make_unique<WaylandShortcutGrab>();
    if (platform == QLatin1String("xcb")) {
        // There the X server is a program of the compositor's, which sees the keys before it.
        if (qEnvironmentVariableIsSet("WAYLAND_DISPLAY"))
            debugLog(
                "⚠︎ This window is an X11 one on a Wayland desktop, whose shortcuts may stay here. With "
                "QT_QPA_PLATFORM=wayland they can be asked for");
        return std::make_unique<X11ShortcutGrab>();
    }
    debugLog(
        fmt::format("⚠︎ System shortcuts stay on this Mac: nothing is known about windows of “{}”",
                    platform.toStdString()));
    return std::make_unique<NoShortcutGrab>();
}

}  // namespace velmora
