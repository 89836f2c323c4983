#include "Platform/Linux/Clipboard/Pasteboards.h"

#include <QGuiApplication>

#include "Platform/Linux/Clipboard/QtPasteboard.h"
#include "Platform/Linux/Clipboard/X11Pasteboard.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

std::unique_ptr<Pasteboard> makePasteboard(Queue& main) {
    if (!QGuiApplication::platformName().startsWith(QLatin1String("wayland")))
        return std::make_unique<X11Pasteboard>(main);
    debugLog("The clipboard is shared while a window has the keys: Wayland gives it to no other");
    return std::make_unique<QtPasteboard>(main);
}

}  // namespace velmora
