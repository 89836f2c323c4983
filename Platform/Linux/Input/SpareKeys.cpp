#include "Platform/Linux/Input/SpareKeys.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <string_view>

#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {
namespace {

using Code = SpareKeys::Code;

// An application that has not taken a key after this long is not waited for any more either.
constexpr auto longestSettling = std::chrono::milliseconds(4000);
constexpr std::string_view recordName = "_VELMORA_SPARE_KEYS";

xcb_atom_t recordAtom(const XConnection& connection) {
    const auto reply = connection.reply(xcb_intern_atom_reply,
                                        xcb_intern_atom(connection, 0, recordName.size(), recordName.data()));
    return reply ? reply->atom : 0;
}

xcb_window_t ownerOf(const XConnection& connection, xcb_atom_t selection) {
    const auto reply =
        connection.reply(xcb_get_selection_owner_reply, xcb_get_selection_owner(connection, selection));
    return reply ? reply->owner : 0;
}

/// The core keyboard map: the symbols of each code.
class CoreMap {
public:
    explicit CoreMap(const XConnection& connection) : first_(connection.setup().min_keycode) {
        const auto count = connection.setup().max_keycode - first_ + 1;
        reply_ = connection.reply(xcb_get_keyboard_mapping_reply,
                                  xcb_get_keyboard_mapping(connection, first_, static_cast<Code>(count)));
    }
    int first() const { return first_; }
    int last() const {
        if (!reply_ || reply_->keysyms_per_keycode == 0) return first_ - 1;
        return first_ + xcb_get_keyboard_mapping_keysyms_length(reply_.get()) / reply_->keysyms_per_keycode -
               1;
    }
    std::span<const xcb_keysym_t> symbolsOf(int code) const {
        if (code < first() || code > last()) return {};
        const std::size_t width = reply_->keysyms_per_keycode;
        return {
            xcb_get_keyboard_mapping_keysyms(reply_.get()) + static_cast<std::size_t>(code - first_) * width,
            width};
    }
    bool isEmpty(int code) const {
        return std::ranges::all_of(symbolsOf(code), [](xcb_keysym_t symbol) { return symbol == 0; });
    }
    /// Has `symbol` in the way we enter one; any symbol when it is not said which.
    bool isLentTo(int code, std::optional<xkb_keysym_t> symbol) const {
        const auto symbols = symbolsOf(code);
        if (symbols.size() < 2 || symbols[0] == 0 || symbols[0] != symbols[1]) return false;
        return !symbol || symbols[0] == *symbol;
    }

private:
    const int first_;
    XReply<xcb_get_keyboard_mapping_reply_t> reply_;
};

/// The symbol goes in twice: entered once, the server would make a pair of cases of it that depends on Shift
/// and Caps Lock.
void enter(const XConnection& connection, Code code, xkb_keysym_t symbol) {
    const xcb_keysym_t twice[] = {symbol, symbol};
    xcb_change_keyboard_mapping(connection, 1, code, 2, twice);
}

}  // namespace

SpareKeys::SpareKeys(const XConnection& connection, std::function<void()> settle)
    : connection_(connection), settle_(std::move(settle)) {
    clearLeftovers(connection_);
    mapWasReplaced();
}

SpareKeys::~SpareKeys() {
    const bool lent = std::ranges::any_of(slots_, [](const Slot& slot) { return slot.symbol != 0; });
    if (lent && !connection_.isBroken()) {
        if (std::ranges::any_of(slots_, [this](const Slot& slot) { return needsSettling(slot); })) settle();
        for (const Slot& slot : slots_) {
            if (slot.symbol != XKB_KEY_NoSymbol) enter(connection_, slot.code, XKB_KEY_NoSymbol);
        }
    }
    if (owner_ == 0) return;
    xcb_delete_property(connection_, connection_.root(), recordAtom(connection_));
    xcb_destroy_window(connection_, owner_);
    xcb_flush(connection_);
}

void SpareKeys::mapWasReplaced() {
    const CoreMap map(connection_);
    std::vector<Slot> found;
    for (int code = map.first(); code <= map.last(); ++code) {
        const auto known = std::ranges::find(slots_, code, &Slot::code);
        if (known != slots_.end() && known->symbol != 0 && map.isLentTo(code, known->symbol)) continue;
        // A code that some keyboard has a key for is left alone, though the layout gives it nothing.
        if (!map.isEmpty(code) || macKeyFromEvdev(static_cast<std::uint16_t>(code - 8))) continue;
        found.push_back({.code = static_cast<Code>(code)});
    }
    for (const Slot& slot : slots_) {
        if (slot.symbol != 0 && map.isLentTo(slot.code, slot.symbol)) found.push_back(slot);
    }
    slots_ = std::move(found);
    if (owner_ != 0) writeDown();
}

bool SpareKeys::isOurs(Code code) const {
    const auto slot = std::ranges::find(slots_, code, &Slot::code);
    return slot != slots_.end() && slot->symbol != XKB_KEY_NoSymbol;
}

std::optional<SpareKeys::Code> SpareKeys::codeFor(xkb_keysym_t symbol) {
    auto slot = std::ranges::find(slots_, symbol, &Slot::symbol);
    if (slot == slots_.end()) {
        slot = slots_.begin();
        if (slot == slots_.end()) return std::nullopt;
        if (needsSettling(*slot)) settle();
        if (owner_ == 0) writeDown();
        slot->symbol = symbol;
        enter(connection_, slot->code, symbol);
    }
    slot->lastUse = HostClock::now();
    std::rotate(slot, slot + 1, slots_.end());
    return slots_.back().code;
}

bool SpareKeys::needsSettling(const Slot& slot) const {
    // Used in the very microsecond in which the settling ended is used after it.
    return slot.symbol != XKB_KEY_NoSymbol && slot.lastUse >= settledAt_ &&
           HostClock::now() - slot.lastUse < longestSettling;
}

void SpareKeys::settle() {
    settle_();
    settledAt_ = HostClock::now();
}

void SpareKeys::writeDown() {
    const xcb_atom_t atom = recordAtom(connection_);
    if (owner_ == 0) {
        if (ownerOf(connection_, atom) != 0) return;  // another of ours is at it: its record stays
        owner_ = xcb_generate_id(connection_);
        xcb_create_window(connection_, 0, owner_, connection_.root(), -1, -1, 1, 1, 0,
                          XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
        xcb_set_selection_owner(connection_, owner_, atom, XCB_CURRENT_TIME);
    }
    std::vector<Code> codes;
    for (const Slot& slot : slots_) codes.push_back(slot.code);
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, connection_.root(), atom, XCB_ATOM_CARDINAL, 8,
                        static_cast<std::uint32_t>(codes.size()), codes.data());
}

void SpareKeys::clearLeftovers(const XConnection& connection) {
    const xcb_atom_t atom = recordAtom(connection);
    if (atom == 0 || ownerOf(connection, atom) != 0) return;
    const auto record = connection.reply(
        xcb_get_property_reply,
        xcb_get_property(connection, 0, connection.root(), atom, XCB_ATOM_CARDINAL, 0, 256 / 4));
    if (!record || record->format != 8) return;
    const CoreMap map(connection);
    const auto* codes = static_cast<const Code*>(xcb_get_property_value(record.get()));
    for (int i = 0; i < xcb_get_property_value_length(record.get()); ++i) {
        if (map.isLentTo(codes[i], std::nullopt)) enter(connection, codes[i], XKB_KEY_NoSymbol);
    }
    xcb_delete_property(connection, connection.root(), atom);
    xcb_flush(connection);
}

}  // namespace velmora
