#include "Platform/Linux/Input/HeldKeys.h"

#include <utility>

namespace velmora {
namespace {

constexpr ModifierKind allKinds[] = {ModifierKind::shift, ModifierKind::control, ModifierKind::option,
                                     ModifierKind::command, ModifierKind::level3};

bool opensMenus(ModifierKind kind) {
    return kind == ModifierKind::option || kind == ModifierKind::command;
}

}  // namespace

std::optional<ModifierKind> HeldKeys::kindOf(Code code) const {
    const auto found = layout_.kinds.find(code);
    if (found == layout_.kinds.end()) return std::nullopt;
    return found->second;
}

void HeldKeys::pressKey(Code code, ModifierSet wanted) {
    if (kindOf(code)) return pressModifier(code);
    press({Device::key, code}, wanted);
}

void HeldKeys::releaseKey(Code code) {
    if (modifiers_.contains(code)) return releaseModifier(code, kindOf(code).value_or(ModifierKind::shift));
    release({Device::key, code});
}

void HeldKeys::pressButton(Code button, ModifierSet wanted) {
    if (held_.contains({Device::button, button})) return;
    press({Device::button, button}, wanted);
}

void HeldKeys::releaseButton(Code button) {
    release({Device::button, button});
}

void HeldKeys::tapKey(Code code, ModifierSet wanted) {
    adjustedFor_.reset();
    release({Device::key, code});
    adjustTo(wanted);
    lone_.clear();
    putBackLone_.clear();
    emit_(Device::key, code, true);
    emit_(Device::key, code, false);
}

void HeldKeys::tapButton(Code button, ModifierSet wanted) {
    adjustedFor_.reset();
    adjustTo(wanted);
    lone_.clear();
    putBackLone_.clear();
    emit_(Device::button, button, true);
    emit_(Device::button, button, false);
}

void HeldKeys::press(Input input, ModifierSet wanted) {
    if (const auto held = held_.find(input); held != held_.end()) {
        if (held->second == wanted) return;
        emit_(input.device, input.code, false);
    }
    adjustTo(wanted);
    adjustedFor_ = input;
    held_[input] = wanted;
    lone_.clear();
    putBackLone_.clear();
    emit_(input.device, input.code, true);
}

void HeldKeys::release(Input input) {
    if (held_.erase(input) == 0) return;
    emit_(input.device, input.code, false);
    if (adjustedFor_ == input) putBack();
}

void HeldKeys::pressModifier(Code code) {
    if (!modifiers_.insert(code).second) return;
    const ModifierKind kind = *kindOf(code);
    if (const auto added = added_.find(kind); added != added_.end() && added->second == code) {
        added_.erase(added);  // it is down already; from now on it is the person's
        return;
    }
    emit_(Device::key, code, true);
    if (opensMenus(kind)) lone_.insert(code);
}

void HeldKeys::releaseModifier(Code code, ModifierKind kind) {
    modifiers_.erase(code);
    if (lifted_.erase(code) != 0) return;
    lone_.erase(code);
    if (opensMenus(kind) && putBackLone_.erase(code) != 0) return liftWithoutTapping(code);
    emit_(Device::key, code, false);
}

bool HeldKeys::isPhysicallyDown(ModifierKind kind) const {
    for (const Code code : modifiers_) {
        if (kindOf(code) == kind) return true;
    }
    return false;
}

void HeldKeys::adjustTo(ModifierSet wanted) {
    // The right option key of a layout with third levels is AltGr: whoever holds it means it.
    if (wanted.contains(ModifierKind::option) && isPhysicallyDown(ModifierKind::level3) &&
        !isPhysicallyDown(ModifierKind::option)) {
        wanted.erase(ModifierKind::option);
        wanted.insert(ModifierKind::level3);
    }
    for (const ModifierKind kind : allKinds) {
        if (!wanted.contains(kind)) forbid(kind);
    }
    for (const ModifierKind kind : allKinds) {
        if (wanted.contains(kind)) require(kind);
    }
}

void HeldKeys::require(ModifierKind kind) {
    if (added_.contains(kind)) return;
    std::optional<Code> up;
    for (const Code code : modifiers_) {
        if (kindOf(code) != kind) continue;
        if (!lifted_.contains(code)) return;
        up = code;
    }
    if (up) {
        lifted_.erase(*up);
        emit_(Device::key, *up, true);
        return;
    }
    const Code code = layout_.keyFor[static_cast<std::size_t>(kind)];
    if (code == 0) return;
    added_[kind] = code;
    emit_(Device::key, code, true);
}

void HeldKeys::forbid(ModifierKind kind) {
    if (const auto added = added_.find(kind); added != added_.end()) {
        emit_(Device::key, added->second, false);
        added_.erase(added);
    }
    for (const Code code : modifiers_) {
        if (kindOf(code) == kind && !lifted_.contains(code)) lift(code, kind);
    }
}

void HeldKeys::lift(Code code, ModifierKind kind) {
    lifted_.insert(code);
    putBackLone_.erase(code);
    if (opensMenus(kind) && lone_.erase(code) != 0) return liftWithoutTapping(code);
    emit_(Device::key, code, false);
}

void HeldKeys::liftWithoutTapping(Code code) {
    const Code control = layout_.keyFor[static_cast<std::size_t>(ModifierKind::control)];
    const bool needsControl =
        control != 0 && !modifiers_.contains(control) && !added_.contains(ModifierKind::control);
    if (needsControl) emit_(Device::key, control, true);
    emit_(Device::key, code, false);
    if (needsControl) emit_(Device::key, control, false);
}

void HeldKeys::putBack() {
    adjustedFor_.reset();
    for (const auto& [kind, code] : std::exchange(added_, {})) emit_(Device::key, code, false);
    for (const Code code : std::exchange(lifted_, {})) {
        emit_(Device::key, code, true);
        if (!opensMenus(kindOf(code).value_or(ModifierKind::shift))) continue;
        lone_.insert(code);
        putBackLone_.insert(code);
    }
}

void HeldKeys::releaseEverything() {
    for (const auto& [input, wanted] : std::exchange(held_, {})) emit_(input.device, input.code, false);
    for (const auto& [kind, code] : std::exchange(added_, {})) emit_(Device::key, code, false);
    adjustedFor_.reset();
    for (const Code code : std::exchange(modifiers_, {})) {
        if (lifted_.contains(code)) continue;
        if (lone_.contains(code)) {
            liftWithoutTapping(code);
        } else {
            emit_(Device::key, code, false);
        }
    }
    lifted_.clear();
    lone_.clear();
    putBackLone_.clear();
}

}  // namespace velmora
