#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "Platform/Launcher.h"
#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// What an agent's keys do to the launcher. Command+Space opens it with an empty field; from then on it gets
/// all keys of this session, and no window does. Return opens what was written; Escape, a mouse button and
/// the end of the session close it. Owned by an InputInjector; lives on the input queue.
class LauncherKeys {
public:
    /// `launcher` outlives us.
    explicit LauncherKeys(Launcher& launcher) : launcher_(launcher) {}
    ~LauncherKeys() { close(); }

    /// True: the event was meant for the launcher and must go nowhere else.
    bool take(const InputEvent& event, const PixelRect& display);
    void close();

private:
    bool takeKeyDown(const InputEvent& event);
    void write(const InputEvent& event);

    Launcher& launcher_;
    bool isOpen_ = false;
    PixelRect display_;
    std::string text_;
    std::set<std::uint16_t> keysDown_;  // whose way up is ours too
};

}  // namespace velmora
