#include "Platform/Linux/Display/X11Pointer.h"

#include <utility>

namespace velmora {

bool X11Pointer::isButtonHeld() {
    if (!std::exchange(wasTried_, true)) {
        if (auto connection = XConnection::open()) connection_ = *std::move(connection);
    }
    if (!connection_) return false;
    const auto reply =
        connection_->reply(xcb_query_pointer_reply, xcb_query_pointer(*connection_, connection_->root()));
    constexpr std::uint16_t buttons = XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_2 | XCB_BUTTON_MASK_3;
    return reply && (reply->mask & buttons) != 0;
}

}  // namespace velmora
