#pragma once

#include <xkbcommon/xkbcommon.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Platform/Linux/Display/XConnection.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Key codes that no layout uses, lent to characters that the layout cannot type. An application looks up
/// what a code means when it gets to the key press, so a code may only be given another meaning once the
/// application that got it last has caught up; there are about twenty codes, and the one used longest ago
/// goes first.
///
/// What was lent is given back at the end. Lest a crash leave the keyboard littered, the codes are written
/// down on the root window before the first is changed; they belong to us as long as we own the selection of
/// the same name, and when nobody does, whoever comes next clears them.
class SpareKeys {
public:
    using Code = std::uint8_t;

    /// Finds the codes. `settle` waits until the application that has the keyboard has taken what was typed.
    SpareKeys(const XConnection& connection, std::function<void()> settle);
    ~SpareKeys();
    SpareKeys(const SpareKeys&) = delete;
    SpareKeys& operator=(const SpareKeys&) = delete;

    /// The code that types `symbol` now, for one press and release. None when the keyboard has no room.
    std::optional<Code> codeFor(xkb_keysym_t symbol);
    bool isOurs(Code code) const;
    /// The keyboard map was replaced: what it lends now must be found anew.
    void mapWasReplaced();

    /// Clears codes that a program of ours left behind when it crashed.
    static void clearLeftovers(const XConnection& connection);

private:
    struct Slot {
        Code code = 0;
        xkb_keysym_t symbol = XKB_KEY_NoSymbol;
        HostClock::time_point lastUse{};
    };
    bool needsSettling(const Slot& slot) const;
    void settle();
    void writeDown();

    const XConnection& connection_;
    const std::function<void()> settle_;
    std::vector<Slot> slots_;  // in the order of their use, oldest first
    HostClock::time_point settledAt_{};
    xcb_window_t owner_ = 0;  // holds the selection; 0 until something is written down
};

}  // namespace velmora
