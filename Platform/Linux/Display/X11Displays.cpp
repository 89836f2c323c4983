#include "Platform/Linux/Display/X11Displays.h"

#include <fmt/format.h>
#include <pthread.h>
#include <xcb/randr.h>

#include <algorithm>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

/// Monitors came with RandR 1.5; an older server has one screen, and that is what it shows.
bool hasMonitors(const XConnection& connection) {
    if (!connection.extension(xcb_randr_id)) return false;
    const auto version =
        connection.reply(xcb_randr_query_version_reply, xcb_randr_query_version(connection, 1, 5));
    return version && (version->major_version > 1 || version->minor_version >= 5);
}

Result<std::vector<Display>> wholeScreen(const XConnection& connection) {
    const auto root =
        connection.reply(xcb_get_geometry_reply, xcb_get_geometry(connection, connection.root()));
    if (!root) return Failure{"the X server does not answer"};
    // The first atom there is, which no server gives to a monitor: it means PRIMARY.
    return std::vector{Display{.id = XCB_ATOM_PRIMARY,
                               .name = "Display 1",
                               .bounds = {0, 0, root->width, root->height},
                               .pixels = {root->width, root->height},
                               .isMain = true}};
}

std::string nameOf(const XConnection& connection, xcb_get_atom_name_cookie_t cookie, DisplayId id) {
    const auto reply = connection.reply(xcb_get_atom_name_reply, cookie);
    const int length = reply ? xcb_get_atom_name_name_length(reply.get()) : 0;
    if (length == 0) return fmt::format("Display {}", id);
    return {xcb_get_atom_name_name(reply.get()), static_cast<std::size_t>(length)};
}

void chooseMain(std::vector<Display>& displays) {
    if (displays.empty()) return;
    auto main = std::ranges::find_if(displays, &Display::isMain);
    if (main == displays.end()) {
        main = std::ranges::find_if(displays,
                                    [](const Display& d) { return d.bounds.x == 0 && d.bounds.y == 0; });
    }
    if (main == displays.end()) main = displays.begin();
    for (Display& display : displays) display.isMain = false;
    main->isMain = true;
    std::rotate(displays.begin(), main, main + 1);
}

/// Two monitors over the same corner show the same thing, wholly or as far as the smaller one reaches.
void markMirrors(std::vector<Display>& displays) {
    for (auto display = displays.begin(); display != displays.end(); ++display) {
        display->isMirror = std::any_of(displays.begin(), display, [&](const Display& earlier) {
            return !earlier.isMirror && earlier.bounds.x == display->bounds.x &&
                   earlier.bounds.y == display->bounds.y;
        });
    }
}

}  // namespace

X11Displays::X11Displays(std::string display) : display_(std::move(display)) {}

X11Displays::~X11Displays() {
    stopWatching();
}

Result<std::vector<Display>> X11Displays::list() {
    std::lock_guard lock(mutex_);
    if (!connection_ || connection_->isBroken()) {
        connection_.reset();
        auto opened = XConnection::open(display_);
        if (!opened) return opened.error();
        connection_ = std::move(opened).value();
    }
    return read(*connection_);
}

Result<std::vector<Display>> X11Displays::read(const XConnection& connection) {
    if (!hasMonitors(connection)) return wholeScreen(connection);
    const auto reply = connection.reply(xcb_randr_get_monitors_reply,
                                        xcb_randr_get_monitors(connection, connection.root(), 1));
    if (!reply) return Failure{"the X server does not say which monitors it has"};
    std::vector<Display> displays;
    std::vector<xcb_get_atom_name_cookie_t> names;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem != 0;
         xcb_randr_monitor_info_next(&it)) {
        const auto& monitor = *it.data;
        if (monitor.width == 0 || monitor.height == 0) continue;
        displays.push_back({.id = monitor.name,
                            .bounds = {monitor.x, monitor.y, monitor.width, monitor.height},
                            .pixels = {monitor.width, monitor.height},
                            .isMain = monitor.primary != 0});
        names.push_back(xcb_get_atom_name(connection, monitor.name));
    }
    for (std::size_t i = 0; i < displays.size(); ++i) {
        displays[i].name = nameOf(connection, names[i], displays[i].id);
    }
    chooseMain(displays);
    markMirrors(displays);
    return displays;
}

bool X11Displays::selectChanges(const XConnection& connection) {
    if (!connection.extension(xcb_randr_id)) return false;
    // The server sends a client nothing that is newer than the version it asked for.
    connection.reply(xcb_randr_query_version_reply, xcb_randr_query_version(connection, 1, 5));
    xcb_randr_select_input(connection, connection.root(),
                           XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                               XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    // Monitors cut out by hand change without an event of RandR: the root window only hears ConfigureNotify.
    const std::uint32_t structure = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, connection.root(), XCB_CW_EVENT_MASK, &structure);
    return true;
}

bool X11Displays::isChange(const XConnection& connection, const xcb_generic_event_t& event) {
    const auto* randr = connection.extension(xcb_randr_id);
    if (!randr) return false;
    const int type = event.response_type & 0x7f;
    return type == XCB_CONFIGURE_NOTIFY || type == randr->first_event + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
           type == randr->first_event + XCB_RANDR_NOTIFY;
}

void X11Displays::observe(Queue* queue, std::function<void()> onChange) {
    stopWatching();
    if (!queue || !onChange) return;
    std::lock_guard lock(watchMutex_);
    observer_ = std::make_shared<Observer>();
    observer_->onChange = std::move(onChange);
    auto opened = XConnection::open(display_);
    if (!opened) {
        hostLog(fmt::format("⚠︎ Displays are not watched: {}", opened.error().text));
        return;
    }
    // Selected and acknowledged here: no change after this call goes unnoticed.
    std::shared_ptr<XConnection> connection = std::move(opened).value();
    if (!selectChanges(*connection)) return;
    connection->reply(xcb_get_input_focus_reply, xcb_get_input_focus(*connection));
    ending_ = false;
    watcher_ = std::thread([this, connection, queue, observer = observer_] {
        pthread_setname_np(pthread_self(), "displays");
        watch(*connection, *queue, observer);
    });
}

void X11Displays::watch(const XConnection& connection, Queue& queue,
                        const std::shared_ptr<Observer>& observer) {
    while (!ending_) {
        bool changed = false;
        while (const auto event = connection.pollEvent()) changed |= isChange(connection, *event);
        const bool gone = connection.isBroken();
        if ((changed || gone) && !observer->told.exchange(true)) {
            queue.post([weak = std::weak_ptr(observer)] {
                const auto current = weak.lock();
                if (!current) return;
                current->told = false;  // before the call: what changes meanwhile is told again
                current->onChange();
            });
        }
        if (gone) return;
        waiter_.wait(connection, std::nullopt);
    }
}

void X11Displays::stopWatching() {
    std::lock_guard lock(watchMutex_);
    if (watcher_.joinable()) {
        ending_ = true;
        waiter_.wake();
        watcher_.join();
    }
    observer_.reset();
}

std::unique_ptr<Displays> makeDisplays() {
    return std::make_unique<X11Displays>();
}

}  // namespace velmora
