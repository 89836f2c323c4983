#include "Host/KeyboardLayoutMap.h"

#include <fmt/format.h>

#include <chrono>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

KeyboardLayoutMap::KeyboardLayoutMap(KeyboardLayout& layout, const Queue& input)
    : layout_(layout), input_(input) {}

std::optional<KeyboardLayoutMap::Key> KeyboardLayoutMap::keyFor(const std::string& characters) {
    const auto now = input_.now();
    if (!lastCheck_ || now - *lastCheck_ > std::chrono::seconds(1)) {
        lastCheck_ = now;
        refresh();
    }
    const auto found = map_.find(characters);
    if (found == map_.end()) return std::nullopt;
    return found->second;
}

void KeyboardLayoutMap::refresh() {
    const auto id = layout_.currentId();
    if (!id || *id == layoutId_) return;
    layoutId_ = *id;
    map_.clear();
    if (!layout_.hasCharacters()) return;
    fill();
    hostLog(fmt::format("Keyboard layout on this Mac: {} ({} characters mapped)", layoutId_, map_.size()));
}

/// The first way of typing a character wins: the plainest combination, and among equals the lowest key code.
void KeyboardLayoutMap::fill() {
    static constexpr KeyboardLayout::Modifiers rows[] = {
        {}, {.shift = true}, {.option = true}, {.shift = true, .option = true}};
    for (const auto& row : rows) {
        for (std::uint16_t keyCode = 0; keyCode < 128; ++keyCode) {
            std::string characters = layout_.charactersFor(keyCode, row);
            if (characters.empty()) continue;
            map_.try_emplace(std::move(characters),
                             Key{.keyCode = keyCode, .shift = row.shift, .option = row.option});
        }
    }
}

}  // namespace velmora
