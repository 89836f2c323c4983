#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Platform/KeyboardLayout.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The host's keyboard layout from character to key, so that a viewer with another keyboard types the
/// characters it means. Owned by InputInjector; lives on the input queue.
class KeyboardLayoutMap {
public:
    /// How to type a character: a macOS virtual key code and what to hold with it.
    struct Key {
        std::uint16_t keyCode = 0;
        bool shift = false;
        bool option = false;
        bool operator==(const Key&) const = default;
    };

    KeyboardLayoutMap(KeyboardLayout& layout, const Queue& input);  // both outlive us

    /// None if the layout cannot type it with one key. Looks at the layout at most once a second, and so only
    /// while someone types; asking key by key takes long enough to be done only when the layout changed.
    std::optional<Key> keyFor(const std::string& characters);

private:
    void refresh();
    void fill();

    KeyboardLayout& layout_;
    const Queue& input_;
    std::unordered_map<std::string, Key> map_;
    std::string layoutId_;  // what the map was built for
    std::optional<HostClock::time_point> lastCheck_;
};

}  // namespace velmora
