#include "Viewer/Window/KeyboardCapture.h"

#include <utility>

#include "Platform/EventPoster.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

KeyboardCapture::KeyboardCapture(Grab grab, Queue& main, const Parameters& parameters)
    : grab_(std::move(grab)), main_(main), parameters_(parameters) {}

KeyboardCapture::~KeyboardCapture() {
    stop();
}

void KeyboardCapture::stop() {
    setActive(false);
    grab_ = nullptr;
}

void KeyboardCapture::setActive(bool active) {
    if (!active) suspended_ = false;
    if (std::exchange(wanted_, active) == active) return;
    if (active) return take();
    giveBack();
}

void KeyboardCapture::letGo() {
    giveBack();
    if (!wanted_ || std::exchange(suspended_, true)) return;
    debugLog("Keyboard capture off: a click into the picture takes the keys again");
}

void KeyboardCapture::resume() {
    if (std::exchange(suspended_, false) && wanted_) take();
}

void KeyboardCapture::take() {
    if (held_ || suspended_ || !grab_) return;
    asked_ = true;
    held_ = grab_(true);
    if (held_) {
        retry_.reset();
        tries_ = 0;
        if (!std::exchange(told_, true)) {
            debugLog(
                "Keyboard capture on: while the remote window is active, all keys (including ⌘Space, ⌘Tab) "
                "go "
                "to the other Mac. Ctrl+Alt+Shift+Escape gives them back");
        }
        return;
    }
    if (++tries_ == parameters_.triesBeforeWords && !std::exchange(told_, true))
        debugLog("⚠︎ Couldn't install the keyboard tap; system shortcuts stay on this Mac");
    retry_ = main_.after(parameters_.retry, [this] { take(); });
}

void KeyboardCapture::giveBack() {
    retry_.reset();
    tries_ = 0;
    held_ = false;
    if (std::exchange(asked_, false)) grab_(false);
}

bool KeyboardCapture::isWayOut(std::uint16_t code, std::uint64_t flags) {
    using namespace EventFlags;
    constexpr std::uint16_t escapeKey = 0x35;
    constexpr std::uint64_t all = shift | control | option;
    return code == escapeKey && (flags & (all | command)) == all;
}

}  // namespace velmora
