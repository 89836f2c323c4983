#include "Platform/Linux/Input/XKeymap.h"

#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon-x11.h>

#include <algorithm>

#include "Platform/Linux/Input/XkbHeader.h"

namespace velmora {
namespace {

// The real modifiers behind third levels and Num Lock in every layout of the common keyboard database.
constexpr const char* level3Modifier = "Mod5";
constexpr std::uint8_t capsMask = XCB_MOD_MASK_LOCK, numMask = XCB_MOD_MASK_2;

bool isOfKeypad(xkb_keysym_t symbol) {
    return symbol >= XKB_KEY_KP_Space && symbol <= XKB_KEY_KP_Equal;
}

}  // namespace

XKeymap::XKeymap(const XConnection& connection, std::function<bool(Code)> mayIgnore)
    : connection_(connection), mayIgnore_(std::move(mayIgnore)) {
    context_.reset(xkb_context_new(XKB_CONTEXT_NO_DEFAULT_INCLUDES));
    const bool hasXkb = xkb_x11_setup_xkb_extension(
        connection_, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
        XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &firstEvent_, nullptr);
    if (!hasXkb) return;
    device_ = xkb_x11_get_core_keyboard_device_id(connection_);
    if (device_ < 0) return;
    selectEvents();
    readLocks();
}

XKeymap::~XKeymap() = default;

void XKeymap::selectEvents() {
    constexpr std::uint16_t events = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY |
                                     XCB_XKB_EVENT_TYPE_STATE_NOTIFY;
    constexpr std::uint16_t parts = XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS |
                                    XCB_XKB_MAP_PART_MODIFIER_MAP | XCB_XKB_MAP_PART_VIRTUAL_MODS |
                                    XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP;
    constexpr std::uint16_t stateParts = XCB_XKB_STATE_PART_MODIFIER_LOCK | XCB_XKB_STATE_PART_GROUP_STATE |
                                         XCB_XKB_STATE_PART_GROUP_BASE | XCB_XKB_STATE_PART_GROUP_LATCH |
                                         XCB_XKB_STATE_PART_GROUP_LOCK;
    xcb_xkb_select_events_details_t details{};
    details.affectNewKeyboard = details.newKeyboardDetails = XCB_XKB_NKN_DETAIL_KEYCODES;
    details.affectState = details.stateDetails = stateParts;
    xcb_xkb_select_events_aux(connection_, static_cast<xcb_xkb_device_spec_t>(device_), events, 0, 0, parts,
                              parts, &details);
}

void XKeymap::readLocks() {
    const auto state = connection_.reply(
        xcb_xkb_get_state_reply, xcb_xkb_get_state(connection_, static_cast<xcb_xkb_device_spec_t>(device_)));
    if (!state) return;
    group_ = state->group;
    lockedModifiers_ = state->lockedMods;
}

void XKeymap::handleEvent(const xcb_generic_event_t& event) {
    if (firstEvent_ == 0 || (event.response_type & 0x7F) != firstEvent_) return;
    switch (event.pad0) {  // the extension's own event number
        case XCB_XKB_NEW_KEYBOARD_NOTIFY:
            isStale_ = true;
            break;
        case XCB_XKB_MAP_NOTIFY: {
            const auto& change = reinterpret_cast<const xcb_xkb_map_notify_event_t&>(event);
            bool matters =
                (change.changed & ~(XCB_XKB_MAP_PART_KEY_SYMS | XCB_XKB_MAP_PART_MODIFIER_MAP |
                                    XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP | XCB_XKB_MAP_PART_KEY_ACTIONS)) != 0 ||
                (change.changed & XCB_XKB_MAP_PART_KEY_SYMS) == 0;
            for (int i = 0; i < change.nKeySyms && !matters; ++i) {
                matters = !mayIgnore_(static_cast<Code>(change.firstKeySym + i));
            }
            if (matters) isStale_ = true;
            break;
        }
        case XCB_XKB_STATE_NOTIFY: {
            const auto& state = reinterpret_cast<const xcb_xkb_state_notify_event_t&>(event);
            if (group_ != state.group) ++generation_;
            group_ = state.group;
            lockedModifiers_ = state.lockedMods;
            break;
        }
        default:
            break;
    }
}

bool XKeymap::refresh() {
    if (device_ < 0 || connection_.isBroken()) return false;
    if (!isStale_) return keymap_ != nullptr;
    isStale_ = false;
    keymap_.reset(
        xkb_x11_keymap_new_from_device(context_.get(), connection_, device_, XKB_KEYMAP_COMPILE_NO_FLAGS));
    ++generation_;
    readLocks();
    return keymap_ != nullptr;
}

std::string XKeymap::layoutName() const {
    const auto layouts = xkb_keymap_num_layouts(keymap_.get());
    const char* name =
        layouts == 0 ? nullptr : xkb_keymap_layout_get_name(keymap_.get(), std::min(group_, layouts - 1));
    return name != nullptr ? name : "unnamed";
}

xkb_keysym_t XKeymap::symbolOf(const Stroke& stroke) const {
    const auto bit = [&](const char* name) {
        const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap_.get(), name);
        return index == XKB_MOD_INVALID ? 0u : 1u << index;
    };
    const std::unique_ptr<xkb_state, StateDeleter> state(xkb_state_new(keymap_.get()));
    xkb_state_update_mask(state.get(), stroke.shift ? bit(XKB_MOD_NAME_SHIFT) : 0, 0, 0, 0, 0, group_);
    const auto layout = xkb_state_key_get_layout(state.get(), stroke.code);
    if (layout == XKB_LAYOUT_INVALID) return XKB_KEY_NoSymbol;
    if (!stroke.level3) return xkb_state_key_get_one_sym(state.get(), stroke.code);

    const auto without = xkb_state_key_get_level(state.get(), stroke.code, layout);
    xkb_state_update_mask(state.get(), (stroke.shift ? bit(XKB_MOD_NAME_SHIFT) : 0) | bit(level3Modifier), 0,
                          0, 0, 0, group_);
    // A key without a third level gives the same as before: no way of its own to type that.
    if (xkb_state_key_get_level(state.get(), stroke.code, layout) == without) return XKB_KEY_NoSymbol;
    return xkb_state_key_get_one_sym(state.get(), stroke.code);
}

std::map<char32_t, XKeymap::Stroke> XKeymap::characters() const {
    std::map<char32_t, Stroke> found;
    for (const auto& [shift, level3] :
         {std::pair(false, false), {true, false}, {false, true}, {true, true}}) {
        if (level3 && level3Key() == 0) break;
        for (auto code = xkb_keymap_min_keycode(keymap_.get());
             code <= std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap_.get()), 255); ++code) {
            const Stroke stroke{static_cast<Code>(code), shift, level3};
            if (mayIgnore_(stroke.code)) continue;
            const xkb_keysym_t symbol = symbolOf(stroke);
            if (symbol == XKB_KEY_NoSymbol || isOfKeypad(symbol)) continue;
            const char32_t character = xkb_keysym_to_utf32(symbol);
            if (character < 32 || character == 127) continue;
            found.try_emplace(character, stroke);
        }
    }
    return found;
}

bool XKeymap::isLevel3Key(Code code) const {
    return symbolOf({.code = code}) == XKB_KEY_ISO_Level3_Shift;
}

XKeymap::Code XKeymap::level3Key() const {
    constexpr Code rightAlt = 108, extra = 92;  // the second exists in every map, on no keyboard
    for (const Code code : {rightAlt, extra}) {
        if (isLevel3Key(code)) return code;
    }
    return 0;
}

std::uint8_t XKeymap::maskOf(Lock lock) const {
    return lock == Lock::caps ? capsMask : numMask;
}

bool XKeymap::isLocked(Lock lock) const {
    return (lockedModifiers_ & maskOf(lock)) != 0;
}

void XKeymap::setLocked(Lock lock, bool on) {
    if (device_ < 0) return;
    const std::uint8_t mask = maskOf(lock);
    xcb_xkb_latch_lock_state(connection_, static_cast<xcb_xkb_device_spec_t>(device_), mask, on ? mask : 0, 0,
                             0, 0, 0, 0);
    // Known at once; the event that follows only says it again.
    lockedModifiers_ = static_cast<std::uint8_t>(on ? lockedModifiers_ | mask : lockedModifiers_ & ~mask);
}

char32_t XKeymap::spacingCharacterOf(xkb_keysym_t deadSymbol) {
    switch (deadSymbol) {
        case XKB_KEY_dead_grave:
            return U'`';
        case XKB_KEY_dead_acute:
            return U'\u00B4';
        case XKB_KEY_dead_circumflex:
            return U'^';
        case XKB_KEY_dead_tilde:
            return U'~';
        case XKB_KEY_dead_macron:
            return U'\u00AF';
        case XKB_KEY_dead_breve:
            return U'\u02D8';
        case XKB_KEY_dead_abovedot:
            return U'\u02D9';
        case XKB_KEY_dead_diaeresis:
            return U'\u00A8';
        case XKB_KEY_dead_abovering:
            return U'\u00B0';
        case XKB_KEY_dead_doubleacute:
            return U'\u02DD';
        case XKB_KEY_dead_caron:
            return U'\u02C7';
        case XKB_KEY_dead_cedilla:
            return U'\u00B8';
        case XKB_KEY_dead_ogonek:
            return U'\u02DB';
        case XKB_KEY_dead_iota:
            return U'\u037A';
        default:
            return 0;
    }
}

}  // namespace velmora
