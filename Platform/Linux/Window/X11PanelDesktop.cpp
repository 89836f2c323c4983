#include "Platform/Linux/Window/X11PanelDesktop.h"

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <QSocketNotifier>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

namespace {

constexpr std::uint32_t firstWheelButton = 4, lastWheelButton = 7;

}  // namespace

class X11PanelDesktop::Server {
public:
    explicit Server(std::function<void()> onPress) : onPress_(std::move(onPress)) {
        auto opened = XConnection::open();
        if (!opened) return;
        x_ = std::move(*opened);
        check_ = atom("_NET_SUPPORTING_WM_CHECK");
        state_ = atom("_NET_WM_STATE");
        skipTaskBar_ = atom("_NET_WM_STATE_SKIP_TASKBAR");
        skipPager_ = atom("_NET_WM_STATE_SKIP_PAGER");
        const auto* input = x_->extension(xcb_input_id);
        // From 2.1 on, presses are told whoever has grabbed the pointer.
        const auto version =
            x_->reply(xcb_input_xi_query_version_reply, xcb_input_xi_query_version(*x_, 2, 1));
        if (!input || !version) return;
        inputOpcode_ = input->major_opcode;
        wake_.emplace(xcb_get_file_descriptor(*x_), QSocketNotifier::Read);
        QObject::connect(&*wake_, &QSocketNotifier::activated, &*wake_, [this] { readEvents(); });
    }

    /// A window manager leaves a window of its own, and says so on that and on the root.
    bool managesWindows() const {
        const auto manager = x_ && !x_->isBroken() ? checkWindowOf(x_->root()) : XCB_NONE;
        return manager != XCB_NONE && checkWindowOf(manager) == manager;
    }

    void keepOutOfTaskBar(WindowId window) {
        if (!x_ || x_->isBroken()) return;
        const std::array<xcb_atom_t, 2> states{skipTaskBar_, skipPager_};
        xcb_change_property(*x_, XCB_PROP_MODE_REPLACE, static_cast<xcb_window_t>(window), state_,
                            XCB_ATOM_ATOM, 32, states.size(), states.data());
        waitUntilDone();  // the toolkit shows the window through another connection
    }

    void selectPresses(bool wanted) {
        if (!wake_ || x_->isBroken()) return;
        struct {
            xcb_input_event_mask_t head;
            std::uint32_t mask;
        } selection{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, 0};
        if (wanted) selection.mask = XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS;
        xcb_input_xi_select_events(*x_, x_->root(), 1, &selection.head);
        waitUntilDone();
        isWatching_ = wanted;
        if (!wanted) readEvents();
    }

private:
    void waitUntilDone() const { x_->reply(xcb_get_input_focus_reply, xcb_get_input_focus(*x_)); }
    xcb_window_t checkWindowOf(xcb_window_t window) const {
        const auto value = x_->reply(xcb_get_property_reply,
                                     xcb_get_property(*x_, 0, window, check_, XCB_ATOM_WINDOW, 0, 1));
        if (!value || xcb_get_property_value_length(value.get()) < static_cast<int>(sizeof(xcb_window_t)))
            return XCB_NONE;
        return *static_cast<const xcb_window_t*>(xcb_get_property_value(value.get()));
    }
    xcb_atom_t atom(std::string_view name) const {
        const auto reply =
            x_->reply(xcb_intern_atom_reply,
                      xcb_intern_atom(*x_, 0, static_cast<std::uint16_t>(name.size()), name.data()));
        return reply ? reply->atom : XCB_NONE;
    }
    bool isPress(const xcb_generic_event_t& event) const {
        const auto& generic = reinterpret_cast<const xcb_ge_generic_event_t&>(event);
        if ((event.response_type & 0x7F) != XCB_GE_GENERIC || generic.extension != inputOpcode_ ||
            generic.event_type != XCB_INPUT_RAW_BUTTON_PRESS)
            return false;
        const auto button = reinterpret_cast<const xcb_input_raw_button_press_event_t&>(event).detail;
        return button < firstWheelButton || button > lastWheelButton;
    }
    void readEvents() {
        bool pressed = false;
        while (const auto event = x_->pollEvent()) pressed |= isPress(*event);
        if (x_->isBroken()) wake_->setEnabled(false);
        if (pressed && isWatching_) onPress_();
    }

    const std::function<void()> onPress_;
    std::unique_ptr<XConnection> x_;
    std::optional<QSocketNotifier> wake_;
    xcb_atom_t check_ = 0, state_ = 0, skipTaskBar_ = 0, skipPager_ = 0;
    std::uint8_t inputOpcode_ = 0;
    bool isWatching_ = false;
};

X11PanelDesktop::X11PanelDesktop()
    : server_(std::make_unique<Server>([this] {
          if (const auto tell = onPress) tell();
      })) {}

X11PanelDesktop::~X11PanelDesktop() = default;

bool X11PanelDesktop::managesWindows() const {
    return server_->managesWindows();
}

void X11PanelDesktop::keepOutOfTaskBar(WindowId window) {
    server_->keepOutOfTaskBar(window);
}

void X11PanelDesktop::startWatching() {
    server_->selectPresses(true);
}

void X11PanelDesktop::stopWatching() {
    server_->selectPresses(false);
}

}  // namespace velmora
