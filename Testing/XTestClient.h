#pragma once

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Picture.h"

namespace velmora {

/// A test's own client of an X server: draws, and rearranges displays the way a person with xrandr would.
/// Independent of the code under test. Each call returns when the server has done it; false says it would
/// not.
class XTestClient {
public:
    explicit XTestClient(const std::string& display);
    ~XTestClient();
    XTestClient(const XTestClient&) = delete;
    XTestClient& operator=(const XTestClient&) = delete;

    bool ok() const;
    xcb_connection_t* connection() const { return connection_; }
    xcb_window_t root() const { return root_; }

    /// Fills a rectangle of the root window, in root coordinates, with 0xRRGGBB.
    void fill(const PixelRect& rect, std::uint32_t rgb);
    /// The same for many, in one go.
    struct Stroke {
        PixelRect rect;
        std::uint32_t rgb = 0;
    };
    void fill(const std::vector<Stroke>& strokes);
    void movePointerTo(int x, int y);
    /// Whether a window manager takes up a window: one that is there too early may never be shown. Ask until
    /// it does.
    bool hasWindowManager();

    /// Gives `output` ("DUMMY3", Xvfb's "screen") a mode of the rectangle's size at its place, and grows or
    /// shrinks the root window to what the active outputs span.
    bool setOutput(const std::string& output, const PixelRect& rect);
    bool turnOff(const std::string& output);
    bool makePrimary(const std::string& output);
    /// Cuts a monitor out of the screen; the first one may take `output` over from the server's own monitor.
    bool defineMonitor(const std::string& name, const PixelRect& rect, const std::string& output = {});
    bool deleteMonitor(const std::string& name);

private:
    struct Output {
        xcb_randr_output_t id = 0;
        xcb_randr_crtc_t crtc = 0;  // 0: off
        std::vector<xcb_randr_crtc_t> crtcs;
        std::vector<xcb_randr_mode_t> modes;
    };
    template <class R>
    using Reply = std::unique_ptr<R, void (*)(void*)>;
    Reply<xcb_randr_get_screen_resources_current_reply_t> resources();
    std::optional<Output> find(const std::string& name);
    std::optional<PixelRect> rectOf(xcb_randr_crtc_t crtc);
    std::vector<xcb_randr_crtc_t> activeCrtcsExcept(xcb_randr_crtc_t crtc);
    std::optional<xcb_randr_mode_t> modeOf(PixelSize size);
    xcb_atom_t atom(const std::string& name);
    bool setCrtc(xcb_randr_crtc_t crtc, const PixelRect& rect, xcb_randr_mode_t mode,
                 const std::vector<xcb_randr_output_t>& outputs);
    bool setRootSizeFor(const std::vector<PixelRect>& rects);
    bool checked(xcb_void_cookie_t cookie);
    void sync();

    xcb_connection_t* connection_;
    xcb_window_t root_ = 0;
    xcb_gcontext_t pen_ = 0;
};

}  // namespace velmora
