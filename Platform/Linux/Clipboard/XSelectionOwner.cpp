#include "Platform/Linux/Clipboard/XSelectionOwner.h"

#include <algorithm>

namespace velmora {

XSelectionOwner::XSelectionOwner(const XConnection& connection, XAtoms& atoms, xcb_atom_t selection,
                                 Parameters parameters)
    : connection_(connection),
      selection_(selection),
      targets_(atoms.of("TARGETS")),
      multiple_(atoms.of("MULTIPLE")),
      timestamp_(atoms.of("TIMESTAMP")),
      atomPair_(atoms.of("ATOM_PAIR")),
      incremental_(atoms.of("INCR")),
      saveTargets_(atoms.of("SAVE_TARGETS")),
      parameters_(parameters),
      window_(xcb_generate_id(connection)) {
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, connection_.root(), 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
}

XSelectionOwner::~XSelectionOwner() {
    xcb_destroy_window(connection_, window_);
}

template <class T>
void XSelectionOwner::put(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type,
                          const std::vector<T>& values) const {
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, requestor, property, type, 8 * sizeof(T),
                        static_cast<std::uint32_t>(values.size()), values.data());
}

void XSelectionOwner::offer(std::vector<Item> items) {
    // No event of a person's stands behind it whose time could be given.
    xcb_set_selection_owner(connection_, window_, selection_, XCB_CURRENT_TIME);
    const auto reply =
        connection_.reply(xcb_get_selection_owner_reply, xcb_get_selection_owner(connection_, selection_));
    current_.reset();
    if (reply && reply->owner == window_) current_ = Offer{.items = std::move(items), .since = std::nullopt};
}

void XSelectionOwner::handleTaken(xcb_timestamp_t time) {
    if (current_) current_->since = time;
}

bool XSelectionOwner::askToSave(xcb_atom_t manager) {
    const auto reply =
        connection_.reply(xcb_get_selection_owner_reply, xcb_get_selection_owner(connection_, manager));
    if (!reply || reply->owner == XCB_NONE || !current_) return false;
    std::vector<xcb_atom_t> all;
    for (const Item& item : current_->items) all.push_back(item.target);
    put(window_, saveTargets_, XCB_ATOM_ATOM, all);
    xcb_convert_selection(connection_, window_, manager, saveTargets_, saveTargets_, XCB_CURRENT_TIME);
    return true;
}

void XSelectionOwner::handle(const xcb_selection_clear_event_t&) {
    // Before the word that the selection is ours comes only the end of what was offered earlier.
    if (current_ && current_->since) current_.reset();
}

void XSelectionOwner::handle(const xcb_selection_request_event_t& event, HostClock::time_point now) {
    const xcb_atom_t property = event.property != XCB_ATOM_NONE ? event.property : event.target;
    // Times go round: the difference tells which is later.
    const bool isOfOurTime = current_ && (event.time == XCB_CURRENT_TIME || !current_->since ||
                                          static_cast<std::int32_t>(event.time - *current_->since) >= 0);
    bool isAnswered = false;
    if (isOfOurTime && event.selection == selection_) {
        isAnswered = event.target == multiple_ ? answerMultiple(event, now)
                                               : answer(event.requestor, event.target, property, now);
    }
    const xcb_selection_notify_event_t notice{.response_type = XCB_SELECTION_NOTIFY,
                                              .time = event.time,
                                              .requestor = event.requestor,
                                              .selection = event.selection,
                                              .target = event.target,
                                              .property = isAnswered ? property : xcb_atom_t{XCB_ATOM_NONE}};
    static_assert(sizeof notice <= 32);
    char sent[32]{};
    std::copy_n(reinterpret_cast<const char*>(&notice), sizeof notice, sent);
    xcb_send_event(connection_, 0, event.requestor, XCB_EVENT_MASK_NO_EVENT, sent);
}

bool XSelectionOwner::answer(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property,
                             HostClock::time_point now) {
    if (target == targets_) {
        std::vector<xcb_atom_t> all{targets_, multiple_, timestamp_};
        for (const Item& item : current_->items) all.push_back(item.target);
        put(requestor, property, XCB_ATOM_ATOM, all);
        return true;
    }
    if (target == timestamp_) {
        put(requestor, property, XCB_ATOM_INTEGER, std::vector{current_->since.value_or(XCB_CURRENT_TIME)});
        return true;
    }
    const auto item = std::ranges::find(current_->items, target, &Item::target);
    if (item == current_->items.end()) return false;
    if (const auto convert = std::exchange(item->convert, nullptr)) {
        auto data = convert(*item->data);
        if (!data) {
            current_->items.erase(item);
            return false;
        }
        item->data = std::make_shared<const Bytes>(*std::move(data));
    }
    if (item->data->size() > parameters_.piece) return begin(requestor, property, *item, now);
    put(requestor, property, target, *item->data);
    return true;
}

bool XSelectionOwner::answerMultiple(const xcb_selection_request_event_t& event, HostClock::time_point now) {
    constexpr std::uint32_t mostWords = 128;
    if (event.property == XCB_ATOM_NONE) return false;
    const auto reply = connection_.reply(
        xcb_get_property_reply,
        xcb_get_property(connection_, 0, event.requestor, event.property, atomPair_, 0, mostWords));
    if (!reply || reply->format != 32) return false;
    const auto* first = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply.get()));
    const auto count = static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / sizeof *first;
    std::vector<xcb_atom_t> pairs(first, first + count);
    for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
        const bool isGiven = pairs[i] != multiple_ && pairs[i + 1] != XCB_ATOM_NONE &&
                             answer(event.requestor, pairs[i], pairs[i + 1], now);
        if (!isGiven) pairs[i] = XCB_ATOM_NONE;
    }
    put(event.requestor, event.property, atomPair_, pairs);
    return true;
}

void XSelectionOwner::listenTo(xcb_window_t requestor, std::uint32_t events) const {
    xcb_change_window_attributes(connection_, requestor, XCB_CW_EVENT_MASK, &events);
}

bool XSelectionOwner::begin(xcb_window_t requestor, xcb_atom_t property, const Item& item,
                            HostClock::time_point now) {
    if (transfers_.size() >= parameters_.mostTransfers) return false;
    listenTo(requestor, XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY);
    transfers_[{requestor, property}] = {.item = item, .silentUntil = now + parameters_.silence};
    put(requestor, property, incremental_, std::vector{static_cast<std::uint32_t>(item.data->size())});
    return true;
}

void XSelectionOwner::end(Transfers::iterator transfer) {
    const xcb_window_t requestor = transfer->first.first;
    transfers_.erase(transfer);
    const auto other = transfers_.lower_bound({requestor, XCB_ATOM_NONE});
    if (other == transfers_.end() || other->first.first != requestor)
        listenTo(requestor, XCB_EVENT_MASK_NO_EVENT);
}

void XSelectionOwner::handle(const xcb_property_notify_event_t& event, HostClock::time_point now) {
    if (event.state != XCB_PROPERTY_DELETE) return;
    const auto found = transfers_.find({event.window, event.atom});
    if (found == transfers_.end()) return;
    Transfer& transfer = found->second;
    const Bytes& data = *transfer.item.data;
    // The last piece is empty, and says that it is the last.
    const std::size_t size = std::min(parameters_.piece, data.size() - transfer.sent);
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, event.window, event.atom, transfer.item.target, 8,
                        static_cast<std::uint32_t>(size), data.data() + transfer.sent);
    transfer.sent += size;
    transfer.silentUntil = now + parameters_.silence;
    if (size == 0) end(found);
}

void XSelectionOwner::handle(const xcb_destroy_notify_event_t& event) {
    std::erase_if(transfers_,
                  [&event](const auto& transfer) { return transfer.first.first == event.window; });
}

void XSelectionOwner::giveUpSilent(HostClock::time_point now) {
    while (true) {
        const auto late = std::ranges::find_if(
            transfers_, [now](const auto& transfer) { return transfer.second.silentUntil <= now; });
        if (late == transfers_.end()) return;
        end(late);
    }
}

std::optional<HostClock::time_point> XSelectionOwner::nextDeadline() const {
    std::optional<HostClock::time_point> next;
    for (const auto& [where, transfer] : transfers_) {
        if (!next || transfer.silentUntil < *next) next = transfer.silentUntil;
    }
    return next;
}

}  // namespace velmora
