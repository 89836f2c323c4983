#pragma once

#include <cstdint>
#include <optional>

namespace velmora {

/// Between macOS virtual key codes, which travel, and Linux evdev codes: positions on the keyboard, whatever
/// is printed there. X11 key codes are evdev codes + 8. Not every key has a partner; fn has none.
std::optional<std::uint16_t> evdevFromMacKey(std::uint16_t keyCode);
std::optional<std::uint16_t> macKeyFromEvdev(std::uint16_t evdevCode);

}  // namespace velmora
