#include "Platform/Linux/Input/X11KeyboardLayout.h"

#include <fmt/format.h>

#include <algorithm>

#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {
namespace {

constexpr std::uint16_t macKeyCount = 128;
constexpr int xCodeOfEvdev = 8;

/// What a key gives as text. A dead key counts as the sign it would add; control characters are not text.
std::string textOf(xkb_keysym_t symbol) {
    const char32_t dead = XKeymap::spacingCharacterOf(symbol);
    if (dead != 0) symbol = xkb_utf32_to_keysym(dead);
    const std::uint32_t character = xkb_keysym_to_utf32(symbol);
    if (character < 32 || character == 127) return {};
    char text[8] = {};
    return xkb_keysym_to_utf8(symbol, text, sizeof text) > 0 ? text : "";
}

}  // namespace

X11KeyboardLayout::X11KeyboardLayout(std::string display) : display_(std::move(display)) {}

bool X11KeyboardLayout::connect() {
    if (connection_ && !connection_->isBroken()) return true;
    // We live as long as the process, and may see several X servers come and go.
    keymap_.reset();
    connection_.reset();
    keymapSeen_ = 0;
    auto connection = XConnection::open(display_);
    if (!connection) return false;
    connection_ = std::move(*connection);
    // Keys that no Mac has are not asked for; characters typed by way of spare ones come and go.
    keymap_ = std::make_unique<XKeymap>(*connection_, [](XKeymap::Code code) {
        return !macKeyFromEvdev(static_cast<std::uint16_t>(code - xCodeOfEvdev)).has_value();
    });
    return true;
}

bool X11KeyboardLayout::follow() {
    if (!connect()) return false;
    while (const auto event = connection_->pollEvent()) keymap_->handleEvent(*event);
    if (!keymap_->refresh()) return false;
    if (keymap_->generation() == keymapSeen_) return true;
    keymapSeen_ = keymap_->generation();
    Table table = readTable();
    std::string name = keymap_->layoutName();
    if (name != name_) {
        edition_ = 1;
    } else if (table != table_) {
        ++edition_;
    }
    name_ = std::move(name);
    table_ = std::move(table);
    return true;
}

std::optional<std::string> X11KeyboardLayout::currentId() {
    if (!follow()) return std::nullopt;
    return edition_ == 1 ? name_ : fmt::format("{} ({})", name_, edition_);
}

bool X11KeyboardLayout::hasCharacters() {
    return std::ranges::any_of(table_, [](const std::string& text) { return !text.empty(); });
}

std::string X11KeyboardLayout::charactersFor(std::uint16_t keyCode, Modifiers modifiers) {
    const std::size_t place = placeOf(keyCode, modifiers);
    return place < table_.size() ? table_[place] : std::string();
}

X11KeyboardLayout::Table X11KeyboardLayout::readTable() const {
    Table table(macKeyCount * 4u);
    for (std::uint16_t keyCode = 0; keyCode < macKeyCount; ++keyCode) {
        const auto evdev = evdevFromMacKey(keyCode);
        if (!evdev) continue;
        for (const bool shift : {false, true}) {
            for (const bool option : {false, true}) {
                const xkb_keysym_t symbol =
                    keymap_->symbolOf({.code = static_cast<XKeymap::Code>(*evdev + xCodeOfEvdev),
                                       .shift = shift,
                                       .level3 = option});
                table[placeOf(keyCode, {.shift = shift, .option = option})] = textOf(symbol);
            }
        }
    }
    return table;
}

std::size_t X11KeyboardLayout::placeOf(std::uint16_t keyCode, Modifiers modifiers) {
    return keyCode * 4u + (modifiers.shift ? 1u : 0u) + (modifiers.option ? 2u : 0u);
}

std::unique_ptr<KeyboardLayout> makeKeyboardLayout() {
    return std::make_unique<X11KeyboardLayout>();
}

}  // namespace velmora
