#include "Platform/Linux/Capture/ScreenGrabber.h"

#include <fmt/format.h>
#include <xcb/shm.h>

#include <algorithm>

#include "Platform/Linux/Capture/Bt709.h"
#include "Platform/Linux/Capture/DamageRects.h"
#include "Platform/Linux/Display/X11Displays.h"

namespace velmora {
namespace {

/// Rows asked for at a time. All requests go out together, so that the server copies one piece while we
/// convert the one before.
constexpr int rowsPerRequest = 128;

/// No codec takes more, and no number of bytes overflows.
constexpr int largestSide = 16384;

const xcb_visualtype_t* rootVisual(const xcb_screen_t& screen) {
    for (auto depth = xcb_screen_allowed_depths_iterator(&screen); depth.rem != 0; xcb_depth_next(&depth)) {
        for (auto visual = xcb_depth_visuals_iterator(depth.data); visual.rem != 0;
             xcb_visualtype_next(&visual)) {
            if (visual.data->visual_id == screen.root_visual) return visual.data;
        }
    }
    return nullptr;
}

int bitsPerPixel(const xcb_setup_t& setup, int depth) {
    for (auto format = xcb_setup_pixmap_formats_iterator(&setup); format.rem != 0; xcb_format_next(&format)) {
        if (format.data->depth == depth) return format.data->bits_per_pixel;
    }
    return 0;
}

/// What the codec gets: an odd row or column at the edge is left out rather than all else blurred.
PixelSize evenPartOf(const PixelRect& bounds) {
    return {bounds.width & ~1, bounds.height & ~1};
}

}  // namespace

Result<std::unique_ptr<ScreenGrabber>> ScreenGrabber::open(const std::string& xDisplay) {
    auto connection = XConnection::open(xDisplay);
    if (!connection) return connection.error();
    std::unique_ptr<ScreenGrabber> grabber(new ScreenGrabber(std::move(connection).value()));
    if (auto status = grabber->check(); !status) return status.error();
    return grabber;
}

ScreenGrabber::~ScreenGrabber() = default;

Status ScreenGrabber::check() {
    const XConnection& x = *connection_;
    const int depth = x.screen().root_depth;
    const auto* visual = rootVisual(x.screen());
    if (bitsPerPixel(x.setup(), depth) != 32 || x.setup().image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST ||
        !visual || visual->red_mask != 0xff0000 || visual->green_mask != 0xff00 ||
        visual->blue_mask != 0xff) {
        return Failure{
            fmt::format("a screen with a colour depth of {} bits cannot be captured, only 24", depth)};
    }
    const auto shm =
        x.extension(xcb_shm_id) ? x.reply(xcb_shm_query_version_reply, xcb_shm_query_version(x)) : nullptr;
    if (!shm || shm->major_version < 1 || (shm->major_version == 1 && shm->minor_version < 2)) {
        return Failure{"the X server does not share memory with programs (MIT-SHM 1.2)"};
    }
    // Each client that uses an extension says first which version it speaks.
    if (!x.extension(xcb_damage_id) || !x.extension(xcb_xfixes_id) ||
        !x.reply(xcb_damage_query_version_reply, xcb_damage_query_version(x, 1, 1)) ||
        !x.reply(xcb_xfixes_query_version_reply, xcb_xfixes_query_version(x, 5, 0))) {
        return Failure{"the X server does not tell what changes on the screen (DAMAGE)"};
    }
    region_ = xcb_generate_id(x);
    xcb_xfixes_create_region(x, region_, 0, nullptr);
    return Done{};
}

Status ScreenGrabber::show(DisplayId display, PixelSize size) {
    if (size.width < 2 || size.height < 2 || size.width > largestSide || size.height > largestSide ||
        ((size.width | size.height) & 1) != 0) {
        return Failure{fmt::format("no picture can be {}×{}", size.width, size.height)};
    }
    const auto displays = X11Displays::read(*connection_);
    if (!displays) return displays.error();
    const auto found = std::ranges::find(*displays, display, &Display::id);
    if (found == displays->end()) return Failure{fmt::format("display {} is not there", display)};
    // The X server that a Wayland compositor keeps for old programs: it has only their windows, on black.
    if (found->name.starts_with("XWAYLAND")) {
        return Failure{"this Wayland session does not let programs read the screen"};
    }
    const PixelRect bounds = found->bounds;
    const auto root =
        connection_->reply(xcb_get_geometry_reply, xcb_get_geometry(*connection_, connection_->root()));
    if (!root) return Failure{"the X server does not answer"};
    // A monitor may be set up to reach over the edge; what is not there cannot be asked for.
    if (bounds.x < 0 || bounds.y < 0 || bounds.x + bounds.width > root->width ||
        bounds.y + bounds.height > root->height || bounds.width < 2 || bounds.height < 2) {
        return Failure{fmt::format("display {} is not on the screen", display)};
    }
    // A row to spare: the scaler's vector code may look, though not use, beyond the last pixel.
    const auto bytes =
        static_cast<std::size_t>(bounds.width) * static_cast<std::size_t>(bounds.height + 1) * 4;
    if (!segment_ || segment_->size() < bytes) {
        auto segment = SharedSegment::make(*connection_, bytes);
        if (!segment) return segment.error();
        segment_ = std::move(segment).value();
    }
    layout_ = {.bounds = bounds};
    if (size != evenPartOf(bounds)) layout_.scaler.emplace(PixelSize{bounds.width, bounds.height}, size);
    if (!buffer_ || buffer_->size != size) {
        buffer_ = std::make_shared<PictureBuffer>(size);
        view_ = PictureBuffer::view(buffer_);
    }
    return Done{};
}

ScreenGrabber::Outcome ScreenGrabber::grabChanges(xcb_damage_damage_t damage) {
    // Before the pixels are read: a change in between is told again and costs a picture, but is not lost.
    xcb_damage_subtract(*connection_, damage, XCB_NONE, region_);
    const auto reply =
        connection_->reply(xcb_xfixes_fetch_region_reply, xcb_xfixes_fetch_region(*connection_, region_));
    if (!reply) return Outcome::failed;
    const auto* rects = xcb_xfixes_fetch_region_rectangles(reply.get());
    std::vector<PixelRect> changes;
    for (int i = 0; i < xcb_xfixes_fetch_region_rectangles_length(reply.get()); ++i) {
        changes.push_back(
            {rects[i].x - layout_.bounds.x, rects[i].y - layout_.bounds.y, rects[i].width, rects[i].height});
    }
    return grab(changes);
}

ScreenGrabber::Outcome ScreenGrabber::grabWhole(xcb_damage_damage_t damage) {
    xcb_damage_subtract(*connection_, damage, XCB_NONE, XCB_NONE);
    return grab({{0, 0, layout_.bounds.width, layout_.bounds.height}});
}

ScreenGrabber::Outcome ScreenGrabber::grab(const std::vector<PixelRect>& changes) {
    if (!layout_.scaler) {
        damage_ = tidyDamage(changes, buffer_->size);
        if (damage_.empty()) return Outcome::nothing;
        return fetch(damage_, damage_) ? Outcome::picture : Outcome::failed;
    }
    // Scaling looks at pixels beside the changed ones; those are in the segment from the grabs before.
    PictureScaler& scaler = *layout_.scaler;
    const PixelSize evenAbove{(layout_.bounds.width + 1) & ~1, (layout_.bounds.height + 1) & ~1};
    const auto rects = tidyDamage(changes, evenAbove);
    if (rects.empty()) return Outcome::nothing;
    if (!fetch(rects, {})) return Outcome::failed;
    std::vector<PixelRect> reached;
    for (const PixelRect& rect : rects) reached.push_back(scaler.reachOf(rect));
    damage_ = tidyDamage(reached, buffer_->size);
    for (const PixelRect& rect : damage_) {
        scaler.scale(segment_->bytes(), stride(), rect.y, rect.height);
        Bt709::convert(scaler.pixels(), scaler.stride(), *buffer_, rect);
    }
    return Outcome::picture;
}

bool ScreenGrabber::fetch(const std::vector<PixelRect>& rects, std::span<const PixelRect> convertNow) {
    struct Piece {
        xcb_shm_get_image_cookie_t cookie;
        int top, bottom;
    };
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < rects.size(); ++i) {
        if (i > 0 && rects[i].y == rects[i - 1].y)
            continue;  // of the same band, whose rows are asked for whole
        const int bandBottom = std::min(rects[i].y + rects[i].height, layout_.bounds.height);
        for (int top = rects[i].y; top < bandBottom; top += rowsPerRequest) {
            const int bottom = std::min(top + rowsPerRequest, bandBottom);
            const auto cookie = xcb_shm_get_image(
                *connection_, connection_->root(), static_cast<std::int16_t>(layout_.bounds.x),
                static_cast<std::int16_t>(layout_.bounds.y + top),
                static_cast<std::uint16_t>(layout_.bounds.width), static_cast<std::uint16_t>(bottom - top),
                ~0U, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_->id(),
                static_cast<std::uint32_t>(top) * static_cast<std::uint32_t>(stride()));
            pieces.push_back({cookie, top, bottom});
        }
    }
    xcb_flush(*connection_);
    for (auto piece = pieces.begin(); piece != pieces.end(); ++piece) {
        if (!connection_->reply(xcb_shm_get_image_reply, piece->cookie)) {
            while (++piece != pieces.end()) xcb_discard_reply(*connection_, piece->cookie.sequence);
            return false;
        }
        for (const PixelRect& rect : convertNow) {
            const int top = std::max(rect.y, piece->top),
                      bottom = std::min(rect.y + rect.height, piece->bottom);
            if (top >= bottom) continue;
            Bt709::convert(segment_->bytes(), stride(), *buffer_, {rect.x, top, rect.width, bottom - top});
        }
    }
    return true;
}

}  // namespace velmora
