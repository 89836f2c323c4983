#include "Platform/Linux/Clipboard/XSelectionReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace velmora {

namespace {

ByteView valueOf(const xcb_get_property_reply_t& reply) {
    return {static_cast<const std::uint8_t*>(xcb_get_property_value(&reply)),
            static_cast<std::size_t>(xcb_get_property_value_length(&reply))};
}

}  // namespace

XSelectionReader::XSelectionReader(const XConnection& connection, XAtoms& atoms, xcb_atom_t selection,
                                   Parameters parameters)
    : connection_(connection),
      selection_(selection),
      property_(atoms.of("VELMORA_SELECTION")),
      incremental_(atoms.of("INCR")),
      parameters_(parameters) {}

XSelectionReader::~XSelectionReader() {
    giveUpAll();
}

void XSelectionReader::read(xcb_atom_t target, std::size_t most, HostClock::time_point now,
                            Pasteboard::Reading done) {
    const xcb_window_t window = xcb_generate_id(connection_);
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window, connection_.root(), 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
    xcb_convert_selection(connection_, window, selection_, target, property_, XCB_CURRENT_TIME);
    requests_[window] = {.most = most,
                         .done = std::move(done),
                         .silentUntil = now + parameters_.silence,
                         .until = now + parameters_.whole};
}

void XSelectionReader::finish(Requests::iterator request, Result<Bytes, Pasteboard::Lack> outcome) {
    xcb_destroy_window(connection_, request->first);
    auto done = std::move(request->second.done);
    requests_.erase(request);
    done(std::move(outcome));
}

/// The property, which is removed once it was taken whole. What is longer than `most` only tells its length.
XReply<xcb_get_property_reply_t> XSelectionReader::takeProperty(xcb_window_t window, std::size_t most) const {
    const auto words = static_cast<std::uint32_t>(most / 4 + 1);
    return connection_.reply(xcb_get_property_reply,
                             xcb_get_property(connection_, 1, window, property_, XCB_ATOM_ANY, 0, words));
}

void XSelectionReader::handle(const xcb_selection_notify_event_t& event, HostClock::time_point now) {
    const auto found = requests_.find(event.requestor);
    if (found == requests_.end() || found->second.comesInPieces) return;
    if (event.property == XCB_ATOM_NONE) return finish(found, Pasteboard::Lack{});
    Request& request = found->second;
    const auto reply = takeProperty(event.requestor, request.most);
    if (!reply || reply->type == XCB_ATOM_NONE) return finish(found, Pasteboard::Lack{});
    const ByteView value = valueOf(*reply);
    if (reply->type != incremental_) {
        const std::size_t size = value.size() + reply->bytes_after;
        if (size > request.most) return finish(found, Pasteboard::Lack{.tooLong = size});
        return finish(found, Bytes(value.begin(), value.end()));
    }
    // The pieces begin with the removal of this property. It says how much will come, at least.
    std::uint32_t announced = 0;
    if (value.size() >= sizeof announced) std::memcpy(&announced, value.data(), sizeof announced);
    if (announced > request.most) return finish(found, Pasteboard::Lack{.tooLong = announced});
    request.comesInPieces = true;
    request.silentUntil = now + parameters_.silence;
}

void XSelectionReader::handle(const xcb_property_notify_event_t& event, HostClock::time_point now) {
    if (event.state != XCB_PROPERTY_NEW_VALUE || event.atom != property_) return;
    const auto found = requests_.find(event.window);
    if (found == requests_.end() || !found->second.comesInPieces) return;
    Request& request = found->second;
    const std::size_t room = request.most - request.data.size();
    const auto reply = takeProperty(event.window, room);
    if (!reply || reply->type == XCB_ATOM_NONE) return;  // a change that was seen with the one before
    const ByteView value = valueOf(*reply);
    const std::size_t size = request.data.size() + value.size() + reply->bytes_after;
    if (size > request.most) return finish(found, Pasteboard::Lack{.tooLong = size});
    if (value.empty()) return finish(found, std::move(request.data));
    request.data.insert(request.data.end(), value.begin(), value.end());
    request.silentUntil = now + parameters_.silence;
}

void XSelectionReader::giveUpAll() {
    while (!requests_.empty()) finish(requests_.begin(), Pasteboard::Lack{});
}

void XSelectionReader::giveUpSilent(HostClock::time_point now) {
    while (true) {
        const auto late = std::ranges::find_if(requests_, [now](const auto& request) {
            return std::min(request.second.silentUntil, request.second.until) <= now;
        });
        if (late == requests_.end()) return;
        finish(late, Pasteboard::Lack{});
    }
}

std::optional<HostClock::time_point> XSelectionReader::nextDeadline() const {
    std::optional<HostClock::time_point> next;
    for (const auto& [window, request] : requests_) {
        const auto end = std::min(request.silentUntil, request.until);
        if (!next || end < *next) next = end;
    }
    return next;
}

}  // namespace velmora
