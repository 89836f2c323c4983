#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/KeyboardLayout.h"
#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/Input/XKeymap.h"

namespace velmora {

/// The layout that the X server's keyboard has now, by xkbcommon, over a connection of its own. Option stands
/// for AltGr, the key of third levels. A look at the layout costs no round trip while it stays what it is.
class X11KeyboardLayout final : public KeyboardLayout {
public:
    /// `display` such as ":0"; empty means what DISPLAY says.
    explicit X11KeyboardLayout(std::string display = {});

    /// The layout's name, "English (US)". A map that was edited under the same name says "(2)" behind it.
    std::optional<std::string> currentId() override;
    bool hasCharacters() override;
    std::string charactersFor(std::uint16_t keyCode, Modifiers modifiers) override;

private:
    using Table = std::vector<std::string>;  // by key code and modifiers
    bool connect();
    bool follow();
    Table readTable() const;
    static std::size_t placeOf(std::uint16_t keyCode, Modifiers modifiers);

    const std::string display_;
    std::unique_ptr<XConnection> connection_;
    std::unique_ptr<XKeymap> keymap_;
    int keymapSeen_ = 0;  // its generation when the table was made
    std::string name_;
    int edition_ = 1;
    Table table_;
};

/// The keyboard layout of the session this process runs in.
std::unique_ptr<KeyboardLayout> makeKeyboardLayout();

}  // namespace velmora
