#include "Platform/Linux/Window/WaylandShortcutGrab.h"

#include <keyboard-shortcuts-inhibit-unstable-v1-client-protocol.h>
#include <wayland-client.h>

#include <cstring>
#include <utility>

// Qt 6.4 has no public way to the compositor's objects.
#include <qpa/qplatformnativeinterface.h>

#include "Platform/Linux/Window/WindowById.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

template <class Object>
Object* ofApplication(const char* resource) {
    return static_cast<Object*>(
        QGuiApplication::platformNativeInterface()->nativeResourceForIntegration(resource));
}

}  // namespace

/// One window's; the compositor may grant it, or take it back, at any time.
class WaylandShortcutGrab::Inhibitor {
public:
    Inhibitor(zwp_keyboard_shortcuts_inhibit_manager_v1* manager, wl_surface* surface, wl_seat* seat)
        : surface_(surface),
          inhibitor_(zwp_keyboard_shortcuts_inhibit_manager_v1_inhibit_shortcuts(manager, surface, seat)) {
        static constexpr zwp_keyboard_shortcuts_inhibitor_v1_listener listener{
            .active = [](void* self, auto*) { static_cast<Inhibitor*>(self)->isActive_ = true; },
            .inactive =
                [](void* self, auto*) {
                    if (std::exchange(static_cast<Inhibitor*>(self)->isActive_, false))
                        debugLog("Keyboard capture off: the desktop has taken its shortcuts back");
                }};
        zwp_keyboard_shortcuts_inhibitor_v1_add_listener(inhibitor_, &listener, this);
    }
    ~Inhibitor() {
        zwp_keyboard_shortcuts_inhibitor_v1_destroy(inhibitor_);
        wl_display_flush(ofApplication<wl_display>("wl_display"));  // Qt would wait for an event
    }
    Inhibitor(const Inhibitor&) = delete;
    Inhibitor& operator=(const Inhibitor&) = delete;

    bool isFor(const wl_surface* surface) const { return surface_ == surface; }
    bool isActive() const { return isActive_; }

private:
    const wl_surface* const surface_;
    zwp_keyboard_shortcuts_inhibitor_v1* const inhibitor_;
    bool isActive_ = false;
};

/// Called while Qt hands out the compositor's events, on the main thread.
struct WaylandShortcutGrab::Listeners {
    static void add(void* self, wl_registry* registry, std::uint32_t name, const char* interface,
                    std::uint32_t) {
        const wl_interface* const wanted = &zwp_keyboard_shortcuts_inhibit_manager_v1_interface;
        auto& manager = static_cast<WaylandShortcutGrab*>(self)->manager_;
        if (manager || std::strcmp(interface, wanted->name) != 0) return;
        manager = static_cast<zwp_keyboard_shortcuts_inhibit_manager_v1*>(
            wl_registry_bind(registry, name, wanted, 1));
    }
    static void done(void* data, wl_callback*, std::uint32_t) {
        auto* const self = static_cast<WaylandShortcutGrab*>(data);
        wl_callback_destroy(std::exchange(self->listed_, nullptr));
        if (self->manager_) return;
        debugLog(
            "⚠︎ This desktop lends its shortcuts to nobody (zwp_keyboard_shortcuts_inhibit_manager_v1 is "
            "not "
            "there)");
    }
    static constexpr wl_registry_listener registry{.global = add, .global_remove = [](auto...) {}};
    static constexpr wl_callback_listener listed{.done = done};
};

WaylandShortcutGrab::WaylandShortcutGrab() {
    auto* const display = ofApplication<wl_display>("wl_display");
    registry_ = wl_display_get_registry(display);
    wl_registry_add_listener(registry_, &Listeners::registry, this);
    listed_ = wl_display_sync(display);
    wl_callback_add_listener(listed_, &Listeners::listed, this);
    wl_display_flush(display);
}

WaylandShortcutGrab::~WaylandShortcutGrab() {
    inhibitors_.clear();
    if (manager_) zwp_keyboard_shortcuts_inhibit_manager_v1_destroy(manager_);
    if (listed_) wl_callback_destroy(listed_);
    wl_registry_destroy(registry_);
}

bool WaylandShortcutGrab::take(WindowId window) {
    QWindow* const target = windowById(window);
    auto* const seat = ofApplication<wl_seat>("wl_seat");
    if (!manager_ || !target || !seat) return false;
    auto* const surface = static_cast<wl_surface*>(
        QGuiApplication::platformNativeInterface()->nativeResourceForWindow("surface", target));
    if (!surface) return false;
    auto& inhibitor = inhibitors_[window];
    // A window that was hidden and shown again has another surface; one has at most one inhibitor.
    if (!inhibitor || !inhibitor->isFor(surface)) {
        inhibitor.reset();
        inhibitor = std::make_unique<Inhibitor>(manager_, surface, seat);
    }
    return inhibitor->isActive();
}

void WaylandShortcutGrab::giveBack(WindowId window) {
    inhibitors_.erase(window);
}

}  // namespace velmora
