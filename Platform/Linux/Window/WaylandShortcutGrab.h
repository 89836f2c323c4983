#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Platform/ShortcutGrab.h"

struct wl_callback;
struct wl_registry;
struct zwp_keyboard_shortcuts_inhibit_manager_v1;

namespace velmora {

/// Asks the compositor to leave its own shortcuts to a window (keyboard-shortcuts-inhibit-unstable-v1). Some
/// compositors ask the person first, and all have a way for the person to take the shortcuts back: the grant
/// may come late, end, and come again. For a QGuiApplication on Wayland, on its main thread, whose connection
/// this uses; goes before the application.
class WaylandShortcutGrab final : public ShortcutGrab {
public:
    WaylandShortcutGrab();
    ~WaylandShortcutGrab() override;
    WaylandShortcutGrab(const WaylandShortcutGrab&) = delete;
    WaylandShortcutGrab& operator=(const WaylandShortcutGrab&) = delete;

    bool take(WindowId window) override;
    void giveBack(WindowId window) override;

private:
    class Inhibitor;
    struct Listeners;

    wl_registry* registry_ = nullptr;
    wl_callback* listed_ = nullptr;  // until we have heard of all that the compositor offers
    zwp_keyboard_shortcuts_inhibit_manager_v1* manager_ = nullptr;
    std::map<WindowId, std::unique_ptr<Inhibitor>> inhibitors_;
};

}  // namespace velmora
