#include "Host/LauncherKeys.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "Platform/EventPoster.h"
#include "Shared/Characters.h"

namespace velmora {
namespace {

constexpr std::uint16_t returnKey = 36, spaceKey = 49, backspaceKey = 51, escapeKey = 53, enterKey = 76;
constexpr std::size_t longestText = 4096;  // bytes; no path is longer

bool isWritten(std::string_view characters) {
    return !characters.empty() && std::ranges::none_of(characters, [](char c) {
        return static_cast<unsigned char>(c) < 32 || c == 127;
    });
}

}  // namespace

bool LauncherKeys::take(const InputEvent& event, const PixelRect& display) {
    if (event.kind == InputEvent::Kind::mouseDown) close();  // somebody turned to something else
    if (event.kind != InputEvent::Kind::key) return false;
    if (!event.down) return keysDown_.erase(event.keyCode) > 0;
    display_ = display;
    if (!takeKeyDown(event)) return false;
    keysDown_.insert(event.keyCode);
    return true;
}

void LauncherKeys::close() {
    if (!isOpen_) return;
    isOpen_ = false;
    launcher_.hide();
}

bool LauncherKeys::takeKeyDown(const InputEvent& event) {
    if (event.keyCode == spaceKey && (event.flags & EventFlags::command) != 0) {
        isOpen_ = true;
        text_.clear();
        launcher_.show(text_, display_);
        return true;
    }
    if (!isOpen_) return false;
    // A key code counts only where no text is sent with it: typed text has the code 0, which is a letter's.
    if (!event.characters && (event.keyCode == returnKey || event.keyCode == enterKey)) {
        if (text_.empty()) {
            close();
        } else {
            isOpen_ = false;
            launcher_.open(text_);
        }
    } else if (!event.characters && event.keyCode == escapeKey) {
        close();
    } else {
        write(event);
    }
    return true;
}

void LauncherKeys::write(const InputEvent& event) {
    constexpr std::uint64_t shortcut = EventFlags::control | EventFlags::command;
    if (event.flags & shortcut) return;
    if (!event.characters && event.keyCode == backspaceKey) {
        const auto characters = userPerceivedCharacters(text_);
        if (!characters.empty()) text_.resize(text_.size() - characters.back().size());
    } else {
        std::string characters = event.characters.value_or(event.keyCode == spaceKey ? " " : "");
        if (!isWritten(characters) || text_.size() + characters.size() > longestText) return;
        if (event.flags & EventFlags::shift) {
            for (char& c : characters) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        text_ += characters;
    }
    launcher_.show(text_, display_);
}

}  // namespace velmora
