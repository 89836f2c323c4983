#include "Viewer/Window/ViewerInput.h"

#include <cmath>
#include <utility>

#include "Platform/EventPoster.h"

namespace velmora {

namespace {

using namespace EventFlags;

constexpr std::uint16_t capsLockKey = 57;

/// None if the key is no modifier.
std::uint64_t modifierOf(std::uint16_t code) {
    switch (code) {
        case 54:
        case 55:
            return command;
        case 56:
        case 60:
            return shift;
        case capsLockKey:
            return capsLock;
        case 58:
        case 61:
            return option;
        case 59:
        case 62:
            return control;
        default:
            return 0;
    }
}

}  // namespace

void ViewerInput::send(const InputEvent& event) const {
    if (const auto notify = onInput) notify(event);
}

void ViewerInput::move(Point at, std::uint64_t flags) {
    lastPoint_ = at;
    send({.kind = InputEvent::Kind::mouseMove, .x = at.x, .y = at.y, .flags = flags});
}

void ViewerInput::pressButton(std::int64_t button, Point at, int clickCount, std::uint64_t flags) {
    if (!buttonsDown_.insert(button).second) return;
    lastPoint_ = at;
    send({.kind = InputEvent::Kind::mouseDown,
          .x = at.x,
          .y = at.y,
          .button = button,
          .clickCount = clickCount,
          .flags = flags});
}

void ViewerInput::releaseButton(std::int64_t button, Point at, int clickCount, std::uint64_t flags) {
    if (buttonsDown_.erase(button) == 0) return;
    lastPoint_ = at;
    send({.kind = InputEvent::Kind::mouseUp,
          .x = at.x,
          .y = at.y,
          .button = button,
          .clickCount = clickCount,
          .flags = flags});
}

void ViewerInput::keepButtons(const std::set<std::int64_t>& held, Point at, std::uint64_t flags) {
    for (const std::int64_t button : std::set(buttonsDown_)) {
        if (!held.contains(button)) releaseButton(button, at, 1, flags);
    }
}

void ViewerInput::scroll(double dx, double dy, std::uint64_t flags) {
    if (!std::isfinite(dx) || !std::isfinite(dy)) return;
    remainderX_ += dx;
    remainderY_ += dy;
    const double wholeX = std::trunc(remainderX_), wholeY = std::trunc(remainderY_);
    if (wholeX == 0 && wholeY == 0) return;
    remainderX_ -= wholeX;
    remainderY_ -= wholeY;
    send({.kind = InputEvent::Kind::scroll, .dx = wholeX, .dy = wholeY, .flags = flags});
}

void ViewerInput::pressKey(std::uint16_t code, const std::optional<std::string>& characters,
                           std::uint64_t flags) {
    if (code == capsLockKey) return pressCapsLock(flags ^ capsLock);
    // It may have been pressed while the keys were not ours.
    if (((flags & capsLock) != 0) != hostHasCapsLock_) pressCapsLock(flags);
    sendKey({.kind = InputEvent::Kind::key,
             .keyCode = code,
             .characters = characters,
             .down = true,
             .flags = flags | modifierOf(code)});
}

void ViewerInput::pressCapsLock(std::uint64_t flags) {
    hostHasCapsLock_ = (flags & capsLock) != 0;
    sendKey(
        {.kind = InputEvent::Kind::key, .keyCode = capsLockKey, .down = hostHasCapsLock_, .flags = flags});
}

void ViewerInput::releaseKey(std::uint16_t code, std::uint64_t flags) {
    const auto held = keysDown_.find(code);
    if (code == capsLockKey || held == keysDown_.end()) return;
    InputEvent event = held->second;
    event.down = false;
    if (const std::uint64_t own = modifierOf(code)) {
        flags &= ~own;
        // The same modifier may still be held on the other side of the keyboard.
        for (const auto& [other, down] : keysDown_) {
            if (other != code) flags |= modifierOf(other) & own;
        }
    }
    event.flags = flags;
    sendKey(event);
}

void ViewerInput::sendKey(const InputEvent& event) {
    if (event.down) {
        keysDown_[event.keyCode] = event;
    } else {
        keysDown_.erase(event.keyCode);
    }
    send(event);
}

void ViewerInput::type(const std::string& characters, std::uint64_t flags) {
    for (const bool down : {true, false}) {
        send({.kind = InputEvent::Kind::key, .characters = characters, .down = down, .flags = flags});
    }
}

void ViewerInput::releaseKeys() {
    hostHasCapsLock_ = false;
    for (auto& [code, event] : std::exchange(keysDown_, {})) {
        event.down = false;
        send(event);
    }
}

void ViewerInput::releaseButtons() {
    keepButtons({}, lastPoint_, 0);
}

int ClickCounter::press(std::int64_t button, double x, double y, std::int64_t time, const Limits& limits) {
    const bool isNext = count_ > 0 && button == button_ && time - time_ <= limits.interval &&
                        std::hypot(x - x_, y - y_) <= limits.distance;
    count_ = isNext ? count_ + 1 : 1;
    button_ = button;
    time_ = time;
    x_ = x;
    y_ = y;
    return count_;
}

}  // namespace velmora
