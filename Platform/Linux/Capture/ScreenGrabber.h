#pragma once

#include <xcb/damage.h>
#include <xcb/xfixes.h>

#include <optional>
#include <span>
#include <vector>

#include "Platform/Displays.h"
#include "Platform/Linux/Capture/PictureScaler.h"
#include "Platform/Linux/Capture/SharedSegment.h"
#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// Reads one display of an X server into a picture: whole, or the parts that changed since the last time.
/// Made on any thread, then used on one queue. Has a connection of its own, since waiting for pixels would
/// pull the damage events out of the hands of whoever watches for them.
class ScreenGrabber {
public:
    /// `xDisplay` as for XConnection. Fails in words if the screen's pixels cannot be had, or are not 24-bit
    /// colour in the usual order.
    static Result<std::unique_ptr<ScreenGrabber>> open(const std::string& xDisplay);
    ~ScreenGrabber();

    /// From now on shows `display` in pictures of `size`, at the place and in the mode it has now. Fails in
    /// words, and leaves all as it was, when it is not there; with `isBroken` when the server is not.
    Status show(DisplayId display, PixelSize size);
    bool isBroken() const { return connection_->isBroken(); }

    enum class Outcome {
        picture,  // see `picture` and `damage`
        nothing,  // what changed lies elsewhere
        failed,   // the display has changed its mode, or the server is gone: `show` again, then the whole
    };
    /// Takes what `damage` has gathered (it gathers anew from here on) and renews those parts.
    Outcome grabChanges(xcb_damage_damage_t damage);
    /// The same, but renews everything.
    Outcome grabWhole(xcb_damage_damage_t damage);

    /// Written by the next grab, and replaced by `show`.
    const SharedPicture& picture() const { return view_; }
    std::span<const PixelRect> damage() const { return damage_; }

private:
    struct Layout {
        PixelRect bounds;                     // of the display, in the root window
        std::optional<PictureScaler> scaler;  // none: pixel for pixel
    };
    explicit ScreenGrabber(std::unique_ptr<XConnection> connection) : connection_(std::move(connection)) {}
    Status check();
    Outcome grab(const std::vector<PixelRect>& changes);
    bool fetch(const std::vector<PixelRect>& rects, std::span<const PixelRect> convertNow);
    int stride() const { return layout_.bounds.width * 4; }

    std::unique_ptr<XConnection> connection_;
    xcb_xfixes_region_t region_ = 0;
    std::unique_ptr<SharedSegment> segment_;  // holds the display as last grabbed, row under row
    Layout layout_;
    std::shared_ptr<PictureBuffer> buffer_;
    SharedPicture view_;
    std::vector<PixelRect> damage_;
};

}  // namespace velmora
