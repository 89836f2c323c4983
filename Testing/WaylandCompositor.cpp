#include "Testing/WaylandCompositor.h"

#include <keyboard-shortcuts-inhibit-unstable-v1-server-protocol.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <wayland-server.h>
#include <xdg-shell-server-protocol.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace velmora {

namespace {

constexpr auto nothing = [](auto...) {};
constexpr auto destroy = [](wl_client*, wl_resource* resource) { wl_resource_destroy(resource); };

}  // namespace

/// All of it on the desktop's thread, but for `perform`.
class WaylandCompositor::Desktop {
public:
    Desktop(int listener, const Options& options) : options_(options) {
        wl_display_add_socket_fd(display_, listener);
        wl_display_init_shm(display_);
        add<&Desktop::bindCompositor>(&wl_compositor_interface, 4);
        add<&Desktop::bindShell>(&xdg_wm_base_interface, 1);
        add<&Desktop::bindOutput>(&wl_output_interface, 2);
        add<&Desktop::bindSeat>(&wl_seat_interface, 5);
        add<&Desktop::bindClipboard>(&wl_data_device_manager_interface, 3);
        if (options.lendsShortcuts)
            add<&Desktop::bindShortcuts>(&zwp_keyboard_shortcuts_inhibit_manager_v1_interface, 1);
        actionsDue_ = wl_event_loop_add_fd(
            wl_display_get_event_loop(display_), wake_, WL_EVENT_READABLE,
            [](int, std::uint32_t, void* self) { return static_cast<Desktop*>(self)->runActions(); }, this);
        thread_ = std::thread([this] { wl_display_run(display_); });
    }
    ~Desktop() {
        perform([this] { wl_display_terminate(display_); });
        thread_.join();
        for (std::thread& giver : givers_) giver.join();
        for (const int end : unanswered_) close(end);
        wl_event_source_remove(actionsDue_);
        wl_display_destroy_clients(display_);
        wl_display_destroy(display_);
        close(wake_);
        xkb_state_unref(keys_);
        xkb_keymap_unref(keymap_);
        xkb_context_unref(context_);
    }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    void perform(std::function<void()> action) {
        const auto done = std::make_shared<std::promise<void>>();
        {
            const std::lock_guard lock(mutex_);
            actions_.push_back([action = std::move(action), done] {
                action();
                done->set_value();
            });
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = write(wake_, &one, sizeof one);
        done->get_future().wait();
    }

    std::optional<std::uint32_t> pixelAt(int x, int y) const {
        if (!window_ || x < 0 || y < 0 || x >= window_->size.width || y >= window_->size.height)
            return std::nullopt;
        return window_->pixels[static_cast<std::size_t>(y * window_->size.width + x)] & 0xFFFFFF;
    }

    void setFocus(bool focused) {
        if (!window_ || keyboards_.empty() || isFocused_ == focused) return;
        wl_array none;
        wl_array_init(&none);
        for (wl_resource* keyboard : keyboards_) {
            if (!focused) {
                wl_keyboard_send_leave(keyboard, serial(), window_->resource);
            } else {
                wl_keyboard_send_enter(keyboard, serial(), window_->resource, &none);
                sendModifiers(keyboard);
            }
        }
        configure(*window_, focused);
        isFocused_ = focused;
        if (focused) tellSelection();
    }
    void key(std::uint32_t code, bool down) {
        constexpr std::uint32_t firstXkbKey = 8;
        for (wl_resource* keyboard : keyboards_)
            wl_keyboard_send_key(keyboard, serial(), ++time_, code,
                                 down ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
        xkb_state_update_key(keys_, code + firstXkbKey, down ? XKB_KEY_DOWN : XKB_KEY_UP);
        for (wl_resource* keyboard : keyboards_) sendModifiers(keyboard);
    }
    void movePointerTo(int x, int y) {
        if (!window_) return;
        const auto fx = wl_fixed_from_int(x), fy = wl_fixed_from_int(y);
        for (wl_resource* pointer : pointers_) {
            if (!isPointerInside_) wl_pointer_send_enter(pointer, serial(), window_->resource, fx, fy);
            wl_pointer_send_motion(pointer, ++time_, fx, fy);
            wl_pointer_send_frame(pointer);
        }
        isPointerInside_ = true;
    }
    void takePointerAway() {
        if (!window_ || !std::exchange(isPointerInside_, false)) return;
        for (wl_resource* pointer : pointers_) {
            wl_pointer_send_leave(pointer, serial(), window_->resource);
            wl_pointer_send_frame(pointer);
        }
    }

    int shortcutRequests() const { return static_cast<int>(inhibitors_.size()); }
    void lendShortcuts(bool lent) {
        isLent_ = lent;
        for (wl_resource* inhibitor : inhibitors_) tellLent(inhibitor);
    }

    void copy(std::map<std::string, std::string> forms) {
        copied_ = std::move(forms);
        if (wl_resource* const before = std::exchange(source_, nullptr))
            wl_data_source_send_cancelled(before);
        if (isFocused_) tellSelection();
    }
    void fallSilent() { isSilent_ = true; }
    /// The end to read from; none if that is not offered.
    std::optional<int> paste(const std::string& type) {
        if (!source_ || std::ranges::find(sourceTypes_, type) == sourceTypes_.end()) return std::nullopt;
        int ends[2];
        if (pipe(ends) != 0) return std::nullopt;
        wl_data_source_send_send(source_, type.c_str(), ends[1]);
        wl_display_flush_clients(display_);
        close(ends[1]);
        return ends[0];
    }

private:
    struct Surface {
        wl_resource* resource = nullptr;
        wl_resource* pending = nullptr;  // buffer
        std::vector<wl_resource*> frames;
        PixelSize size;
        std::vector<std::uint32_t> pixels;
        wl_resource *shell = nullptr, *toplevel = nullptr;
        bool isConfigured = false;
    };

    static Desktop& of(wl_resource* resource) {
        return *static_cast<Desktop*>(wl_resource_get_user_data(resource));
    }
    static Surface& surfaceOf(wl_resource* resource) {
        return *static_cast<Surface*>(wl_resource_get_user_data(resource));
    }
    template <auto bind>
    void add(const wl_interface* interface, int version) {
        wl_global_create(display_, interface, version, this,
                         [](wl_client* client, void* self, std::uint32_t version, std::uint32_t id) {
                             (static_cast<Desktop*>(self)->*bind)(client, static_cast<int>(version), id);
                         });
    }
    /// A new object of a client's; kept in the list, if any, as long as it lives.
    wl_resource* make(wl_client* client, const wl_interface* interface, int version, std::uint32_t id,
                      const void* requests, std::list<wl_resource*> Desktop::*kept = nullptr) {
        wl_resource* const made = wl_resource_create(client, interface, version, id);
        wl_resource_set_implementation(made, requests, this, [](wl_resource* gone) {
            Desktop& self = of(gone);
            for (auto* list : {&self.keyboards_, &self.pointers_, &self.dataDevices_, &self.inhibitors_})
                list->remove(gone);
            if (self.source_ == gone) self.source_ = nullptr;
            for (Surface* surface : self.surfaces_) {
                if (surface->shell == gone) surface->shell = nullptr;
                if (surface->toplevel != gone) continue;
                surface->toplevel = nullptr;
                if (self.window_ == surface) self.window_ = nullptr;
                self.isFocused_ = self.isPointerInside_ = false;
            }
        });
        if (kept) (this->*kept).push_back(made);
        return made;
    }
    std::uint32_t serial() { return wl_display_next_serial(display_); }

    // Windows

    void bindCompositor(wl_client* client, int version, std::uint32_t id) {
        static const struct wl_compositor_interface requests {
            .create_surface = [](wl_client* c, wl_resource* r,
                                 std::uint32_t i) { of(r).makeSurface(c, wl_resource_get_version(r), i); },
            .create_region = [](wl_client* c, wl_resource* r, std::uint32_t i) {
                static const struct wl_region_interface region {
                    .destroy = destroy, .add = nothing, .subtract = nothing
                };
                of(r).make(c, &wl_region_interface, 1, i, &region);
            }
        };
        make(client, &wl_compositor_interface, version, id, &requests);
    }
    void makeSurface(wl_client* client, int version, std::uint32_t id) {
        static const struct wl_surface_interface requests {
            .destroy = destroy,
            .attach = [](wl_client*, wl_resource* r, wl_resource* buffer, auto,
                         auto) { surfaceOf(r).pending = buffer; },
            .damage = nothing,
            .frame =
                [](wl_client* c, wl_resource* r, std::uint32_t i) {
                    surfaceOf(r).frames.push_back(wl_resource_create(c, &wl_callback_interface, 1, i));
                },
            .set_opaque_region = nothing, .set_input_region = nothing,
            .commit = [](wl_client*, wl_resource* r) { commit(surfaceOf(r)); },
            .set_buffer_transform = nothing, .set_buffer_scale = nothing, .damage_buffer = nothing,
            .offset = nothing
        };
        auto* const surface = new Surface;
        surface->resource = wl_resource_create(client, &wl_surface_interface, version, id);
        surfaces_.push_back(surface);
        wl_resource_set_implementation(surface->resource, &requests, surface, nullptr);
        // Its requests find the surface, so the desktop hears of its end in another way.
        auto* const listener = new EndListener{{}, this, surface};
        listener->base.notify = [](wl_listener* heard, void*) {
            auto* const self = reinterpret_cast<EndListener*>(heard);
            if (self->desktop->window_ == self->surface) self->desktop->window_ = nullptr;
            std::erase(self->desktop->surfaces_, self->surface);
            delete self->surface;
            delete self;
        };
        wl_resource_add_destroy_listener(surface->resource, &listener->base);
    }
    struct EndListener {
        wl_listener base;  // first
        Desktop* desktop;
        Surface* surface;
    };
    static void commit(Surface& surface) {
        if (surface.toplevel && !std::exchange(surface.isConfigured, true))
            of(surface.toplevel).configure(surface, true);
        if (wl_resource* const resource = std::exchange(surface.pending, nullptr)) {
            if (wl_shm_buffer* const buffer = wl_shm_buffer_get(resource)) read(surface, buffer);
            wl_buffer_send_release(resource);
        }
        for (wl_resource* const frame : std::exchange(surface.frames, {})) {
            wl_callback_send_done(frame, 0);
            wl_resource_destroy(frame);
        }
    }
    void configure(const Surface& surface, bool isActive) {
        wl_array states;
        wl_array_init(&states);
        if (isActive)
            *static_cast<std::uint32_t*>(wl_array_add(&states, sizeof(std::uint32_t))) =
                XDG_TOPLEVEL_STATE_ACTIVATED;
        xdg_toplevel_send_configure(surface.toplevel, options_.window.width, options_.window.height, &states);
        wl_array_release(&states);
        xdg_surface_send_configure(surface.shell, serial());
    }
    static void read(Surface& surface, wl_shm_buffer* buffer) {
        surface.size = {wl_shm_buffer_get_width(buffer), wl_shm_buffer_get_height(buffer)};
        const auto width = static_cast<std::size_t>(surface.size.width);
        surface.pixels.resize(width * static_cast<std::size_t>(surface.size.height));
        wl_shm_buffer_begin_access(buffer);
        const auto* row = static_cast<const std::uint8_t*>(wl_shm_buffer_get_data(buffer));
        for (int y = 0; y < surface.size.height; ++y, row += wl_shm_buffer_get_stride(buffer))
            std::memcpy(surface.pixels.data() + static_cast<std::size_t>(y) * width, row, width * 4);
        wl_shm_buffer_end_access(buffer);
    }

    void bindShell(wl_client* client, int version, std::uint32_t id) {
        static const struct xdg_wm_base_interface requests {
            .destroy = destroy, .create_positioner = nothing,
            .get_xdg_surface = [](wl_client* c, wl_resource* r, std::uint32_t i,
                                  wl_resource* s) { of(r).makeShellSurface(c, i, surfaceOf(s)); },
            .pong = nothing
        };
        make(client, &xdg_wm_base_interface, version, id, &requests);
    }
    void makeShellSurface(wl_client* client, std::uint32_t id, Surface& surface) {
        static const struct xdg_surface_interface requests {
            .destroy = destroy,
            .get_toplevel = [](wl_client* c, wl_resource* r, std::uint32_t i) { of(r).makeWindow(c, r, i); },
            .get_popup = nothing, .set_window_geometry = nothing, .ack_configure = nothing
        };
        surface.shell = make(client, &xdg_surface_interface, 1, id, &requests);
    }
    void makeWindow(wl_client* client, const wl_resource* shell, std::uint32_t id) {
        static const struct xdg_toplevel_interface requests {
            .destroy = destroy, .set_parent = nothing, .set_title = nothing, .set_app_id = nothing,
            .show_window_menu = nothing, .move = nothing, .resize = nothing, .set_max_size = nothing,
            .set_min_size = nothing, .set_maximized = nothing, .unset_maximized = nothing,
            .set_fullscreen = nothing, .unset_fullscreen = nothing, .set_minimized = nothing
        };
        for (Surface* surface : surfaces_) {
            if (surface->shell != shell) continue;
            surface->toplevel = make(client, &xdg_toplevel_interface, 1, id, &requests);
            window_ = surface;
        }
    }

    void bindOutput(wl_client* client, int version, std::uint32_t id) {
        static const struct wl_output_interface requests { .release = destroy };
        wl_resource* const output = make(client, &wl_output_interface, version, id, &requests);
        wl_output_send_geometry(output, 0, 0, 300, 200, WL_OUTPUT_SUBPIXEL_NONE, "Velmora", "Test",
                                WL_OUTPUT_TRANSFORM_NORMAL);
        wl_output_send_mode(output, WL_OUTPUT_MODE_CURRENT, 1600, 1000, 60'000);
        wl_output_send_scale(output, 1);
        wl_output_send_done(output);
    }

    // Input

    void bindSeat(wl_client* client, int version, std::uint32_t id) {
        static const struct wl_pointer_interface pointer { .set_cursor = nothing, .release = destroy };
        static const struct wl_keyboard_interface keyboard { .release = destroy };
        static const struct wl_seat_interface requests {
            .get_pointer =
                [](wl_client* c, wl_resource* r, std::uint32_t i) {
                    of(r).make(c, &wl_pointer_interface, wl_resource_get_version(r), i, &pointer,
                               &Desktop::pointers_);
                },
            .get_keyboard =
                [](wl_client* c, wl_resource* r, std::uint32_t i) {
                    of(r).sendKeymap(of(r).make(c, &wl_keyboard_interface, wl_resource_get_version(r), i,
                                                &keyboard, &Desktop::keyboards_));
                },
            .get_touch = nothing, .release = destroy
        };
        wl_resource* const seat = make(client, &wl_seat_interface, version, id, &requests);
        wl_seat_send_capabilities(seat, WL_SEAT_CAPABILITY_KEYBOARD | WL_SEAT_CAPABILITY_POINTER);
        wl_seat_send_name(seat, "seat0");
    }
    void sendKeymap(wl_resource* keyboard) const {
        char* const text = xkb_keymap_get_as_string(keymap_, XKB_KEYMAP_FORMAT_TEXT_V1);
        const std::size_t size = std::strlen(text) + 1;
        const int memory = memfd_create("keymap", MFD_CLOEXEC);
        if (memory >= 0 && write(memory, text, size) == static_cast<ssize_t>(size))
            wl_keyboard_send_keymap(keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, memory,
                                    static_cast<std::uint32_t>(size));
        close(memory);
        free(text);
    }
    void sendModifiers(wl_resource* keyboard) {
        wl_keyboard_send_modifiers(keyboard, serial(),
                                   xkb_state_serialize_mods(keys_, XKB_STATE_MODS_DEPRESSED),
                                   xkb_state_serialize_mods(keys_, XKB_STATE_MODS_LATCHED),
                                   xkb_state_serialize_mods(keys_, XKB_STATE_MODS_LOCKED), 0);
    }

    // Shortcuts

    void bindShortcuts(wl_client* client, int version, std::uint32_t id) {
        static const struct zwp_keyboard_shortcuts_inhibitor_v1_interface inhibitor { .destroy = destroy };
        static const struct zwp_keyboard_shortcuts_inhibit_manager_v1_interface requests {
            .destroy = destroy, .inhibit_shortcuts = [](wl_client* c, wl_resource* r, std::uint32_t i,
                                                        wl_resource*, wl_resource*) {
                of(r).tellLent(of(r).make(c, &zwp_keyboard_shortcuts_inhibitor_v1_interface, 1, i, &inhibitor,
                                          &Desktop::inhibitors_));
            }
        };
        make(client, &zwp_keyboard_shortcuts_inhibit_manager_v1_interface, version, id, &requests);
    }
    void tellLent(wl_resource* inhibitor) const {
        if (isLent_) {
            zwp_keyboard_shortcuts_inhibitor_v1_send_active(inhibitor);
        } else {
            zwp_keyboard_shortcuts_inhibitor_v1_send_inactive(inhibitor);
        }
    }

    // The clipboard

    void bindClipboard(wl_client* client, int version, std::uint32_t id) {
        static const struct wl_data_source_interface source {
            .offer = [](wl_client*, wl_resource* r, const char* type) { of(r).offered_[r].push_back(type); },
            .destroy = destroy, .set_actions = nothing
        };
        static const struct wl_data_device_interface device {
            .start_drag = nothing,
            .set_selection = [](wl_client*, wl_resource* r, wl_resource* chosen,
                                std::uint32_t) { of(r).select(chosen); },
            .release = destroy
        };
        static const struct wl_data_device_manager_interface requests {
            .create_data_source =
                [](wl_client* c, wl_resource* r, std::uint32_t i) {
                    of(r).make(c, &wl_data_source_interface, wl_resource_get_version(r), i, &source);
                },
            .get_data_device = [](wl_client* c, wl_resource* r, std::uint32_t i, wl_resource*) {
                of(r).make(c, &wl_data_device_interface, wl_resource_get_version(r), i, &device,
                           &Desktop::dataDevices_);
            }
        };
        make(client, &wl_data_device_manager_interface, version, id, &requests);
    }
    void select(wl_resource* chosen) {
        wl_resource* const before = std::exchange(source_, chosen);
        if (before && before != chosen) wl_data_source_send_cancelled(before);
        sourceTypes_ = chosen ? offered_[chosen] : std::vector<std::string>();
        copied_.clear();
        tellSelection();
    }
    /// Whoever has the keys hears what the clipboard holds.
    void tellSelection() {
        static const struct wl_data_offer_interface requests {
            .accept = nothing,
            .receive =
                [](wl_client*, wl_resource* r, const char* type, int end) {
                    Desktop& self = of(r);
                    if (self.source_) {
                        wl_data_source_send_send(self.source_, type, end);
                        close(end);
                    } else {
                        self.give(type, end);
                    }
                },
            .destroy = destroy, .finish = nothing, .set_actions = nothing
        };
        std::vector<std::string> types = source_ ? sourceTypes_ : std::vector<std::string>();
        for (const auto& [type, content] : copied_) types.push_back(type);
        for (wl_resource* device : dataDevices_) {
            if (types.empty()) {
                wl_data_device_send_selection(device, nullptr);
                continue;
            }
            wl_resource* const offer = make(wl_resource_get_client(device), &wl_data_offer_interface,
                                            wl_resource_get_version(device), 0, &requests);
            wl_data_device_send_data_offer(device, offer);
            for (const std::string& type : types) wl_data_offer_send_offer(offer, type.c_str());
            wl_data_device_send_selection(device, offer);
        }
    }

    /// Larger things than a pipe holds take their time.
    void give(const std::string& type, int end) {
        if (isSilent_) {
            unanswered_.push_back(end);
            return;
        }
        givers_.emplace_back([content = copied_[type], end] {
            std::size_t sent = 0;
            for (ssize_t size = 0; sent < content.size() &&
                                   (size = write(end, content.data() + sent, content.size() - sent)) > 0;)
                sent += static_cast<std::size_t>(size);
            close(end);
        });
    }

    int runActions() {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto size = ::read(wake_, &count, sizeof count);
        std::vector<std::function<void()>> due;
        {
            const std::lock_guard lock(mutex_);
            due.swap(actions_);
        }
        for (const auto& action : due) action();
        wl_display_flush_clients(display_);
        return 0;
    }

    const Options options_;
    wl_display* const display_ = wl_display_create();
    xkb_context* const context_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    xkb_keymap* const keymap_ = xkb_keymap_new_from_names(context_, nullptr, XKB_KEYMAP_COMPILE_NO_FLAGS);
    xkb_state* const keys_ = xkb_state_new(keymap_);
    std::vector<Surface*> surfaces_;
    Surface* window_ = nullptr;  // the newest
    std::list<wl_resource*> keyboards_, pointers_, dataDevices_, inhibitors_;
    bool isFocused_ = false, isPointerInside_ = false, isLent_ = true;
    std::uint32_t time_ = 0;
    wl_resource* source_ = nullptr;  // of the client whose copy it is
    std::vector<std::string> sourceTypes_;
    std::map<wl_resource*, std::vector<std::string>> offered_;
    std::map<std::string, std::string> copied_;  // by the other program
    bool isSilent_ = false;
    std::vector<int> unanswered_;
    std::list<std::thread> givers_;

    wl_event_source* actionsDue_ = nullptr;
    const int wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex mutex_;
    std::vector<std::function<void()>> actions_;  // guarded by mutex_
    std::thread thread_;
};

WaylandCompositor::WaylandCompositor(const Options& options) {
    std::signal(SIGPIPE, SIG_IGN);  // who pastes may stop reading
    sockaddr_un address{.sun_family = AF_UNIX};
    const std::string path = (folder_ / "wayland").string();
    if (path.size() >= sizeof address.sun_path) return;
    path.copy(address.sun_path, path.size());
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 16) != 0) {
        close(listener);
        return;
    }
    desktop_ = std::make_unique<Desktop>(listener, options);
    socket_ = path;
}

WaylandCompositor::~WaylandCompositor() = default;

template <class F>
auto WaylandCompositor::ask(F question) {
    decltype(question(*desktop_)) answer{};
    desktop_->perform([&] { answer = question(*desktop_); });
    return answer;
}

std::optional<std::uint32_t> WaylandCompositor::pixelAt(int x, int y) {
    return ask([&](Desktop& desktop) { return desktop.pixelAt(x, y); });
}
void WaylandCompositor::focus() {
    desktop_->perform([this] { desktop_->setFocus(true); });
}
void WaylandCompositor::unfocus() {
    desktop_->perform([this] { desktop_->setFocus(false); });
}
void WaylandCompositor::key(std::uint32_t code, bool down) {
    desktop_->perform([=, this] { desktop_->key(code, down); });
}
void WaylandCompositor::movePointerTo(int x, int y) {
    desktop_->perform([=, this] { desktop_->movePointerTo(x, y); });
}
void WaylandCompositor::takePointerAway() {
    desktop_->perform([this] { desktop_->takePointerAway(); });
}
int WaylandCompositor::shortcutRequests() {
    return ask([](Desktop& desktop) { return desktop.shortcutRequests(); });
}
void WaylandCompositor::lendShortcuts(bool lent) {
    desktop_->perform([=, this] { desktop_->lendShortcuts(lent); });
}
void WaylandCompositor::copy(std::map<std::string, std::string> forms) {
    desktop_->perform([&] { desktop_->copy(std::move(forms)); });
}
void WaylandCompositor::fallSilent() {
    desktop_->perform([this] { desktop_->fallSilent(); });
}

std::optional<std::string> WaylandCompositor::paste(const std::string& type) {
    const auto end = ask([&](Desktop& desktop) { return desktop.paste(type); });
    if (!end) return std::nullopt;
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(*end, part, sizeof part)) > 0;)
        text.append(part, static_cast<std::size_t>(size));
    close(*end);
    return text;
}

}  // namespace velmora
