#pragma once

#include <QGuiApplication>
#include <QWindow>

#include "Platform/ShortcutGrab.h"

namespace velmora {

/// None if there is no such window on the screen any more.
inline QWindow* windowById(ShortcutGrab::WindowId id) {
    for (QWindow* const window : QGuiApplication::topLevelWindows()) {
        if (window->handle() && window->winId() == id) return window;
    }
    return nullptr;
}

}  // namespace velmora
