#include "Platform/Linux/Input/FocusedWindow.h"

#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {
namespace {

// More than twice what the slowest toolkit seen takes to read a keyboard map that changed nineteen times.
constexpr auto longestWait = std::chrono::milliseconds(4000);
constexpr double mostBlindWaits = 16;
// Without an answer to wait for: three times what a terminal needs on a machine that has time.
constexpr auto blindWait = std::chrono::milliseconds(100);
constexpr int deepestNesting = 32;

xcb_atom_t atomOf(const XConnection& connection, std::string_view name) {
    const auto reply = connection.reply(
        xcb_intern_atom_reply,
        xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(name.size()), name.data()));
    return reply ? reply->atom : 0;
}

/// Where there are more programs than processors, each waits its turn.
std::chrono::milliseconds blindWaitNow() {
    double load = 0;
    if (::getloadavg(&load, 1) != 1) return blindWait;
    const double perProcessor = load / std::max(1u, std::thread::hardware_concurrency());
    const double factor = std::clamp(perProcessor, 1.0, mostBlindWaits);
    return std::chrono::milliseconds(static_cast<int>(static_cast<double>(blindWait.count()) * factor));
}

}  // namespace

FocusedWindow::FocusedWindow(const XConnection& connection, OnEvent onOtherEvent)
    : connection_(connection),
      onOtherEvent_(std::move(onOtherEvent)),
      protocols_(atomOf(connection, "WM_PROTOCOLS")),
      ping_(atomOf(connection, "_NET_WM_PING")) {}

xcb_window_t FocusedWindow::windowUnderPointer() const {
    xcb_window_t window = connection_.root();
    for (int depth = 0; depth < deepestNesting; ++depth) {
        const auto pointer =
            connection_.reply(xcb_query_pointer_reply, xcb_query_pointer(connection_, window));
        if (!pointer || pointer->child == 0) break;
        window = pointer->child;
    }
    return window;
}

std::vector<xcb_window_t> FocusedWindow::ancestry() const {
    const auto focus = connection_.reply(xcb_get_input_focus_reply, xcb_get_input_focus(connection_));
    if (!focus || focus->focus == XCB_INPUT_FOCUS_NONE) return {};
    xcb_window_t window = focus->focus == XCB_INPUT_FOCUS_POINTER_ROOT ? windowUnderPointer() : focus->focus;
    std::vector<xcb_window_t> windows;
    while (window != 0 && window != connection_.root() && windows.size() < deepestNesting) {
        windows.push_back(window);
        const auto tree = connection_.reply(xcb_query_tree_reply, xcb_query_tree(connection_, window));
        window = tree ? tree->parent : 0;
    }
    return windows;
}

std::string FocusedWindow::classOf(xcb_window_t window) const {
    const auto property = connection_.reply(
        xcb_get_property_reply,
        xcb_get_property(connection_, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 64));
    if (!property || property->format != 8) return {};
    std::string name(static_cast<const char*>(xcb_get_property_value(property.get())),
                     static_cast<std::size_t>(xcb_get_property_value_length(property.get())));
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    return name;
}

bool FocusedWindow::isTerminal() const {
    static constexpr std::string_view words[] = {"term",  "konsole", "kitty",   "alacritty",
                                                 "tilix", "guake",   "yakuake", "ghostty"};
    for (const xcb_window_t window : ancestry()) {
        const std::string name = classOf(window);
        if (name.empty()) continue;
        return std::ranges::any_of(
            words, [&](std::string_view word) { return name.find(word) != std::string::npos; });
    }
    return false;
}

std::optional<xcb_window_t> FocusedWindow::pingable() const {
    for (const xcb_window_t window : ancestry()) {
        const auto property =
            connection_.reply(xcb_get_property_reply,
                              xcb_get_property(connection_, 0, window, protocols_, XCB_ATOM_ATOM, 0, 32));
        if (!property || property->format != 32) continue;
        const auto* atoms = static_cast<const xcb_atom_t*>(xcb_get_property_value(property.get()));
        const auto* end = atoms + xcb_get_property_value_length(property.get()) / 4;
        if (std::find(atoms, end, ping_) != end) return window;
    }
    return std::nullopt;
}

void FocusedWindow::settle() {
    if (!listens_) {
        // Toolkits send the answer to the root with either of these masks.
        const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(connection_, connection_.root(), XCB_CW_EVENT_MASK, &mask);
        listens_ = true;
    }
    const auto window = pingable();
    if (!window) {
        waitFor([](const auto&) { return false; }, blindWaitNow());
        return;
    }
    xcb_client_message_event_t question{};
    question.response_type = XCB_CLIENT_MESSAGE;
    question.format = 32;
    question.window = *window;
    question.type = protocols_;
    question.data.data32[0] = ping_;
    question.data.data32[1] = ++serial_;
    question.data.data32[2] = *window;
    xcb_send_event(connection_, 0, *window, 0, reinterpret_cast<const char*>(&question));
    waitFor(
        [this](const xcb_generic_event_t& event) {
            if ((event.response_type & 0x7F) != XCB_CLIENT_MESSAGE) return false;
            const auto& answer = reinterpret_cast<const xcb_client_message_event_t&>(event);
            return answer.data.data32[0] == ping_ && answer.data.data32[1] == serial_;
        },
        longestWait);
}

bool FocusedWindow::waitFor(const std::function<bool(const xcb_generic_event_t&)>& isIt,
                            std::chrono::milliseconds limit) {
    xcb_flush(connection_);
    const auto end = HostClock::now() + limit;
    while (!connection_.isBroken()) {
        while (const auto event = connection_.pollEvent()) {
            if (isIt(*event)) return true;
            onOtherEvent_(*event);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - HostClock::now()).count();
        if (left <= 0) return false;
        pollfd descriptor{xcb_get_file_descriptor(connection_), POLLIN, 0};
        ::poll(&descriptor, 1, static_cast<int>(left));
    }
    return false;
}

}  // namespace velmora
