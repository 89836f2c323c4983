#include "Testing/XInputWindow.h"

#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

namespace velmora {
namespace {

template <class T>
std::unique_ptr<T, void (*)(void*)> own(T* reply) {
    return {reply, std::free};
}

constexpr auto limit = std::chrono::seconds(10);

}  // namespace

XInputWindow::XInputWindow(const std::string& display, const std::string& className)
    : connection_(xcb_connect(display.c_str(), nullptr)) {
    if (xcb_connection_has_error(connection_)) return;
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    root_ = screen->root;
    window_ = xcb_generate_id(connection_);
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                           XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                                           XCB_EVENT_MASK_POINTER_MOTION | XCB_EVENT_MASK_EXPOSURE};
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, root_, 0, 0, screen->width_in_pixels,
                      screen->height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    const std::string names = "window" + std::string(1, '\0') + className + std::string(1, '\0');
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(names.size()), names.data());
    xcb_map_window(connection_, window_);
    ready_ = waitForMap();
    xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
    const auto focus = own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    ready_ = ready_ && focus && focus->focus == window_;
}

XInputWindow::~XInputWindow() {
    xcb_disconnect(connection_);
}

bool XInputWindow::waitForMap() {
    xcb_flush(connection_);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        while (const auto event = own(xcb_poll_for_event(connection_))) {
            if ((event->response_type & 0x7F) == XCB_EXPOSE) return true;
        }
        pollfd descriptor{xcb_get_file_descriptor(connection_), POLLIN, 0};
        ::poll(&descriptor, 1, 100);
    }
    return false;
}

void XInputWindow::read() {
    using enum Event::Kind;
    while (const auto event = own(xcb_poll_for_event(connection_))) {
        const auto& input = reinterpret_cast<const xcb_button_press_event_t&>(*event);  // all look alike
        const auto add = [&](Event::Kind kind) {
            events_.push_back({kind, input.detail, input.state, input.root_x, input.root_y, input.time});
        };
        switch (event->response_type & 0x7F) {
            case XCB_KEY_PRESS:
                add(keyDown);
                break;
            case XCB_KEY_RELEASE:
                add(keyUp);
                break;
            case XCB_BUTTON_PRESS:
                add(buttonDown);
                break;
            case XCB_BUTTON_RELEASE:
                add(buttonUp);
                break;
            case XCB_MOTION_NOTIFY:
                add(motion);
                break;
            default:
                break;
        }
    }
}

const std::vector<XInputWindow::Event>& XInputWindow::events() {
    own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_),
                                  nullptr));  // all that is out
    read();
    return events_;
}

bool XInputWindow::waitUntil(const std::function<bool(const std::vector<Event>&)>& condition) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (true) {
        if (condition(events())) return true;
        if (std::chrono::steady_clock::now() >= end || xcb_connection_has_error(connection_)) return false;
        pollfd descriptor{xcb_get_file_descriptor(connection_), POLLIN, 0};
        ::poll(&descriptor, 1, 20);
    }
}

std::vector<XInputWindow::Event> XInputWindow::take() {
    events();
    return std::exchange(events_, {});
}

bool XInputWindow::isAnythingDown() {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (isAnythingDownNow()) {
        if (std::chrono::steady_clock::now() >= end) return true;
        ::poll(nullptr, 0, 5);  // between two looks
    }
    return false;
}

bool XInputWindow::isAnythingDownNow() {
    const auto keys = own(xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
    const auto pointer =
        own(xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, root_), nullptr));
    if (!keys || !pointer) return true;
    constexpr int buttons =
        XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_2 | XCB_BUTTON_MASK_3 | XCB_BUTTON_MASK_4 | XCB_BUTTON_MASK_5;
    return (pointer->mask & buttons) != 0 ||
           std::any_of(std::begin(keys->keys), std::end(keys->keys), [](std::uint8_t bits) { return bits; });
}

std::vector<std::uint32_t> XInputWindow::symbolsOf(std::uint8_t code) {
    const auto map = own(
        xcb_get_keyboard_mapping_reply(connection_, xcb_get_keyboard_mapping(connection_, code, 1), nullptr));
    if (!map) return {};
    const auto* symbols = xcb_get_keyboard_mapping_keysyms(map.get());
    std::vector<std::uint32_t> found(symbols, symbols + xcb_get_keyboard_mapping_keysyms_length(map.get()));
    while (!found.empty() && found.back() == 0) found.pop_back();
    return found;
}

}  // namespace velmora
