#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Takes all keys for a window while it wants them, those of the desktop's own shortcuts too. Owned by
/// ViewerSession; lives on the main queue.
///
/// Somebody else may hold the keyboard for a moment (a window manager while it changes windows), so a refusal
/// is tried again for as long as the keys are wanted.
class KeyboardCapture {
public:
    struct Parameters {
        std::chrono::milliseconds retry{100};
        int triesBeforeWords = 10;  // until the diary hears that it does not work
    };
    /// Takes the keyboard (true) or gives it back; false if it could not be had, or not yet. What was asked
    /// for is given back, granted or not. Not called again after `stop`.
    using Grab = std::function<bool(bool take)>;
    KeyboardCapture(Grab grab, Queue& main, const Parameters& parameters);
    KeyboardCapture(Grab grab, Queue& main) : KeyboardCapture(std::move(grab), main, Parameters{}) {}
    ~KeyboardCapture();
    KeyboardCapture(const KeyboardCapture&) = delete;
    KeyboardCapture& operator=(const KeyboardCapture&) = delete;

    /// Whether the keys are wanted.
    void setActive(bool active);
    bool isActive() const { return wanted_; }
    /// Whether they are being taken now.
    bool isHeld() const { return held_; }
    /// The same, or that has been asked for.
    bool isAsked() const { return asked_; }

    /// The person wants out: given back at once, and not taken again before `setActive` has been false or
    /// `resume` is called.
    void letGo();
    void resume();
    /// Since `letGo`, until it is taken again or no longer wanted.
    bool isSuspended() const { return suspended_; }
    /// Ctrl+Alt+Shift+Escape, by the wire's code and flags.
    static bool isWayOut(std::uint16_t code, std::uint64_t flags);

    void stop();

private:
    void take();
    void giveBack();

    Grab grab_;
    Queue& main_;
    const Parameters parameters_;
    bool wanted_ = false, asked_ = false, held_ = false, suspended_ = false, told_ = false;
    int tries_ = 0;
    TimerToken retry_;  // while wanted and refused
};

}  // namespace velmora
