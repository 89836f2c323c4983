#pragma once

#include <QKeyEvent>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {

/// The modifiers of the wire. The one of a modifier's own event tells what was held before it.
std::uint64_t inputFlagsOf(Qt::KeyboardModifiers modifiers, bool capsLock);
std::uint64_t inputFlagsOf(const QKeyEvent& event);

/// The wire's code of the key; none for keys that have none. Keys of the keypad that move the caret (without
/// Num Lock) go as the keys that they stand for.
std::optional<std::uint16_t> keyCodeOf(const QKeyEvent& event);

/// What key presses stand for as text, so that a host with another keyboard layout types the same. As if no
/// modifier but Shift and AltGr were held: Control+C is a "c", and Caps Lock is the host's affair. A dead key
/// waits for the key after it and becomes one character with it.
class KeyCharacters {
public:
    struct Press {
        std::string before;                     // to be typed first, usually nothing
        std::optional<std::string> characters;  // none: the key goes by its code alone
        bool waits = false;                     // nothing is to be sent yet
    };
    Press take(const QKeyEvent& event);
    /// Whether `key` (Qt's) only changes what others do.
    static bool isModifier(int key);
    /// What can be typed of `text`, one after the other as a person sees them.
    static std::vector<std::string> typeableIn(const QString& text);
    /// A dead key that waits is forgotten.
    void reset() { pending_ = 0; }

private:
    Press takeDeadKey(int key);
    int pending_ = 0;  // the dead key, 0 if none waits
};

}  // namespace velmora
