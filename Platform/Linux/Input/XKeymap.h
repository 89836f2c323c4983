#pragma once

#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// The map and the locks of the X server's keyboard, kept up to date by its events: no round trip unless the
/// map changed. Used on the thread of its connection, whose events the owner hands over.
class XKeymap {
public:
    using Code = std::uint8_t;  // X11 key code
    /// A way to type something: a key, and what to hold with it.
    struct Stroke {
        Code code = 0;
        bool shift = false;
        bool level3 = false;
    };
    enum class Lock { caps, num };

    /// `connection` outlives us. `mayIgnore`: a change of this key alone concerns nobody (our own doing).
    XKeymap(const XConnection& connection, std::function<bool(Code)> mayIgnore);
    ~XKeymap();
    XKeymap(const XKeymap&) = delete;
    XKeymap& operator=(const XKeymap&) = delete;

    /// Looks at an event; those that are not the keyboard's are left alone.
    void handleEvent(const xcb_generic_event_t& event);
    /// Reads the map if it is not known or has changed: 1 to 16 ms. False if there is no keyboard to ask.
    bool refresh();
    /// Grows with each reading: what was derived from an older one is worth nothing.
    int generation() const { return generation_; }

    // All of the following need a map: `refresh` has said true.
    std::string layoutName() const;
    unsigned group() const { return group_; }
    /// What the key gives in the layout in force; dead keys their dead symbol. NoSymbol for nothing.
    xkb_keysym_t symbolOf(const Stroke& stroke) const;
    /// Every character that one stroke types, but for dead keys and the keypad; the plainest stroke of each.
    std::map<char32_t, Stroke> characters() const;
    /// The key that chooses third levels, or 0.
    Code level3Key() const;
    bool isLevel3Key(Code code) const;

    bool isLocked(Lock lock) const;
    void setLocked(Lock lock, bool on);

    /// The plain character that a dead key adds to others; 0 for a symbol that is not dead.
    static char32_t spacingCharacterOf(xkb_keysym_t deadSymbol);

private:
    void selectEvents();
    void readLocks();
    std::uint8_t maskOf(Lock lock) const;

    struct KeymapDeleter {
        void operator()(xkb_keymap* keymap) const { xkb_keymap_unref(keymap); }
    };
    struct ContextDeleter {
        void operator()(xkb_context* context) const { xkb_context_unref(context); }
    };
    struct StateDeleter {
        void operator()(xkb_state* state) const { xkb_state_unref(state); }
    };

    const XConnection& connection_;
    const std::function<bool(Code)> mayIgnore_;
    std::unique_ptr<xkb_context, ContextDeleter> context_;
    std::unique_ptr<xkb_keymap, KeymapDeleter> keymap_;
    std::uint8_t firstEvent_ = 0;
    std::int32_t device_ = -1;
    bool isStale_ = true;
    int generation_ = 0;
    unsigned group_ = 0;
    std::uint8_t lockedModifiers_ = 0;  // real modifiers of the core keyboard
};

}  // namespace velmora
