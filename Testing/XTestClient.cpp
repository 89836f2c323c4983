#include "Testing/XTestClient.h"

#include <poll.h>
#include <sys/uio.h>
#include <xcb/xcbext.h>

#include <algorithm>
#include <cstdlib>

namespace velmora {
namespace {

template <class R>
std::unique_ptr<R, void (*)(void*)> own(R* reply) {
    return {reply, &std::free};
}

}  // namespace

XTestClient::XTestClient(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
    if (!ok()) return;
    root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    pen_ = xcb_generate_id(connection_);
    // Also over windows: what is asked for must be what is seen.
    const std::uint32_t includeInferiors = XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS;
    xcb_create_gc(connection_, pen_, root_, XCB_GC_SUBWINDOW_MODE, &includeInferiors);
    own(xcb_randr_query_version_reply(connection_, xcb_randr_query_version(connection_, 1, 5), nullptr));
    sync();
}

XTestClient::~XTestClient() {
    xcb_disconnect(connection_);
}

bool XTestClient::ok() const {
    return xcb_connection_has_error(connection_) == 0;
}

void XTestClient::fill(const PixelRect& rect, std::uint32_t rgb) {
    fill(std::vector{Stroke{rect, rgb}});
}

void XTestClient::fill(const std::vector<Stroke>& strokes) {
    for (const auto& [rect, rgb] : strokes) {
        xcb_change_gc(connection_, pen_, XCB_GC_FOREGROUND, &rgb);
        const xcb_rectangle_t area{static_cast<std::int16_t>(rect.x), static_cast<std::int16_t>(rect.y),
                                   static_cast<std::uint16_t>(rect.width),
                                   static_cast<std::uint16_t>(rect.height)};
        xcb_poly_fill_rectangle(connection_, root_, pen_, 1, &area);
    }
    sync();
}

void XTestClient::movePointerTo(int x, int y) {
    xcb_warp_pointer(connection_, XCB_NONE, root_, 0, 0, 0, 0, static_cast<std::int16_t>(x),
                     static_cast<std::int16_t>(y));
    sync();
}

bool XTestClient::hasWindowManager() {
    // What a manager announces when it starts, it announces before it listens: a window of ours has to try.
    const auto window = xcb_generate_id(connection_);
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window, root_, 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
    xcb_map_window(connection_, window);
    bool isManaged = false;
    for (int looks = 0; looks < 50 && !isManaged; ++looks) {
        const Reply<xcb_get_property_reply_t> state(
            xcb_get_property_reply(
                connection_,
                xcb_get_property(connection_, 0, window, atom("WM_STATE"), XCB_GET_PROPERTY_TYPE_ANY, 0, 1),
                nullptr),
            std::free);
        isManaged = state && state->type != 0;
        if (!isManaged) poll(nullptr, 0, 10);
    }
    xcb_destroy_window(connection_, window);
    sync();
    return isManaged;
}

bool XTestClient::setOutput(const std::string& name, const PixelRect& rect) {
    const auto output = find(name);
    const auto mode = modeOf({rect.width, rect.height});
    if (!output || !mode) return false;
    const auto others = activeCrtcsExcept(output->crtc);
    xcb_randr_crtc_t crtc = output->crtc;
    for (const auto candidate : output->crtcs) {
        if (crtc == 0 && std::ranges::find(others, candidate) == others.end()) crtc = candidate;
    }
    if (crtc == 0) return false;
    if (std::ranges::find(output->modes, *mode) == output->modes.end() &&
        !checked(xcb_randr_add_output_mode_checked(connection_, output->id, *mode))) {
        return false;
    }
    std::vector<PixelRect> rects{rect};
    for (const auto other : others) {
        if (const auto r = rectOf(other)) rects.push_back(*r);
    }
    // Grabbed, so that nobody sees the moment in which the display is off.
    xcb_grab_server(connection_);
    bool done = output->crtc == 0 || setCrtc(output->crtc, {}, XCB_NONE, {});
    done = done && setRootSizeFor(rects) && setCrtc(crtc, rect, *mode, {output->id});
    xcb_ungrab_server(connection_);
    sync();
    return done;
}

bool XTestClient::turnOff(const std::string& name) {
    const auto output = find(name);
    if (!output || output->crtc == 0) return false;
    std::vector<PixelRect> rects;
    for (const auto other : activeCrtcsExcept(output->crtc)) {
        if (const auto r = rectOf(other)) rects.push_back(*r);
    }
    if (!setCrtc(output->crtc, {}, XCB_NONE, {})) return false;
    return rects.empty() || setRootSizeFor(rects);
}

bool XTestClient::makePrimary(const std::string& name) {
    const auto output = find(name);
    return output && checked(xcb_randr_set_output_primary_checked(connection_, root_, output->id));
}

bool XTestClient::defineMonitor(const std::string& name, const PixelRect& rect, const std::string& output) {
    struct {
        xcb_randr_set_monitor_request_t request;
        xcb_randr_monitor_info_t monitor;
        xcb_randr_output_t output;
    } message{};
    static_assert(sizeof message == 36);
    message.request.window = root_;
    message.monitor.name = atom(name);
    message.monitor.x = static_cast<std::int16_t>(rect.x);
    message.monitor.y = static_cast<std::int16_t>(rect.y);
    message.monitor.width = static_cast<std::uint16_t>(rect.width);
    message.monitor.height = static_cast<std::uint16_t>(rect.height);
    message.monitor.width_in_millimeters = 100;
    message.monitor.height_in_millimeters = 100;
    std::size_t length = sizeof message;
    if (output.empty()) {
        length -= sizeof message.output;
    } else {
        const auto found = find(output);
        if (!found) return false;
        message.monitor.nOutput = 1;
        message.output = found->id;
    }
    // By hand: xcb_randr_set_monitor of libxcb 1.15 reckons a wrong length and breaks the connection.
    xcb_protocol_request_t description{.count = 1, .ext = &xcb_randr_id, .opcode = XCB_RANDR_SET_MONITOR};
    iovec parts[3]{};  // the library wants two to spare in front
    parts[2] = {&message, length};
    return checked({xcb_send_request(connection_, XCB_REQUEST_CHECKED, parts + 2, &description)});
}

bool XTestClient::deleteMonitor(const std::string& name) {
    return checked(xcb_randr_delete_monitor_checked(connection_, root_, atom(name)));
}

XTestClient::Reply<xcb_randr_get_screen_resources_current_reply_t> XTestClient::resources() {
    return own(xcb_randr_get_screen_resources_current_reply(
        connection_, xcb_randr_get_screen_resources_current(connection_, root_), nullptr));
}

std::optional<XTestClient::Output> XTestClient::find(const std::string& name) {
    const auto all = resources();
    if (!all) return std::nullopt;
    const auto* ids = xcb_randr_get_screen_resources_current_outputs(all.get());
    for (int i = 0; i < xcb_randr_get_screen_resources_current_outputs_length(all.get()); ++i) {
        const auto info = own(xcb_randr_get_output_info_reply(
            connection_, xcb_randr_get_output_info(connection_, ids[i], all->config_timestamp), nullptr));
        if (!info) continue;
        const std::string found(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get())),
                                static_cast<std::size_t>(xcb_randr_get_output_info_name_length(info.get())));
        if (found != name) continue;
        const auto* crtcs = xcb_randr_get_output_info_crtcs(info.get());
        const auto* modes = xcb_randr_get_output_info_modes(info.get());
        return Output{ids[i], info->crtc, {crtcs, crtcs + info->num_crtcs}, {modes, modes + info->num_modes}};
    }
    return std::nullopt;
}

std::optional<PixelRect> XTestClient::rectOf(xcb_randr_crtc_t crtc) {
    const auto info = own(xcb_randr_get_crtc_info_reply(
        connection_, xcb_randr_get_crtc_info(connection_, crtc, XCB_CURRENT_TIME), nullptr));
    if (!info || info->mode == XCB_NONE) return std::nullopt;
    return PixelRect{info->x, info->y, info->width, info->height};
}

std::vector<xcb_randr_crtc_t> XTestClient::activeCrtcsExcept(xcb_randr_crtc_t crtc) {
    std::vector<xcb_randr_crtc_t> active;
    const auto all = resources();
    if (!all) return active;
    const auto* crtcs = xcb_randr_get_screen_resources_current_crtcs(all.get());
    for (int i = 0; i < all->num_crtcs; ++i) {
        if (crtcs[i] != crtc && rectOf(crtcs[i])) active.push_back(crtcs[i]);
    }
    return active;
}

std::optional<xcb_randr_mode_t> XTestClient::modeOf(PixelSize size) {
    const auto all = resources();
    if (!all) return std::nullopt;
    for (auto it = xcb_randr_get_screen_resources_current_modes_iterator(all.get()); it.rem != 0;
         xcb_randr_mode_info_next(&it)) {
        if (it.data->width == size.width && it.data->height == size.height) return it.data->id;
    }
    const std::string name = "test-" + std::to_string(size.width) + "x" + std::to_string(size.height);
    xcb_randr_mode_info_t mode{};
    const auto u16 = [](int n) { return static_cast<std::uint16_t>(n); };
    mode.width = u16(size.width);
    mode.height = u16(size.height);
    mode.hsync_start = u16(size.width + 8);
    mode.hsync_end = u16(size.width + 40);
    mode.htotal = u16(size.width + 80);
    mode.vsync_start = u16(size.height + 3);
    mode.vsync_end = u16(size.height + 8);
    mode.vtotal = u16(size.height + 20);
    mode.dot_clock = static_cast<std::uint32_t>(mode.htotal) * mode.vtotal * 60U;
    mode.name_len = u16(static_cast<int>(name.size()));
    const auto reply = own(xcb_randr_create_mode_reply(
        connection_,
        xcb_randr_create_mode(connection_, root_, mode, static_cast<std::uint32_t>(name.size()), name.data()),
        nullptr));
    return reply ? std::optional(reply->mode) : std::nullopt;
}

xcb_atom_t XTestClient::atom(const std::string& name) {
    const auto reply = own(xcb_intern_atom_reply(
        connection_, xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data()),
        nullptr));
    return reply ? reply->atom : 0;
}

bool XTestClient::setCrtc(xcb_randr_crtc_t crtc, const PixelRect& rect, xcb_randr_mode_t mode,
                          const std::vector<xcb_randr_output_t>& outputs) {
    const auto all = resources();
    if (!all) return false;
    const auto reply = own(xcb_randr_set_crtc_config_reply(
        connection_,
        xcb_randr_set_crtc_config(connection_, crtc, XCB_CURRENT_TIME, all->config_timestamp,
                                  static_cast<std::int16_t>(rect.x), static_cast<std::int16_t>(rect.y), mode,
                                  XCB_RANDR_ROTATION_ROTATE_0, static_cast<std::uint32_t>(outputs.size()),
                                  outputs.data()),
        nullptr));
    return reply && reply->status == XCB_RANDR_SET_CONFIG_SUCCESS;
}

bool XTestClient::setRootSizeFor(const std::vector<PixelRect>& rects) {
    int width = 1, height = 1;
    for (const PixelRect& r : rects) {
        width = std::max(width, r.x + r.width);
        height = std::max(height, r.y + r.height);
    }
    return checked(xcb_randr_set_screen_size_checked(
        connection_, root_, static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height),
        static_cast<std::uint32_t>(width) * 254 / 960, static_cast<std::uint32_t>(height) * 254 / 960));
}

bool XTestClient::checked(xcb_void_cookie_t cookie) {
    const auto error = own(xcb_request_check(connection_, cookie));
    return error == nullptr && ok();
}

void XTestClient::sync() {
    own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

}  // namespace velmora
