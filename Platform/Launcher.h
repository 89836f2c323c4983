#pragma once

#include <string>

#include "Platform/Picture.h"

namespace velmora {

/// A field on top of everything on the screen, in which an agent writes the name of an application, a path or
/// an address. It only shows what it is told: the keys are taken elsewhere, so it never has the keyboard's
/// focus, and its caret does not blink. Called from any thread; returns at once.
class Launcher {
public:
    virtual ~Launcher() = default;

    /// Shows the field with this text, the caret behind it. `display` in pixels of the whole screen; an empty
    /// one stands for the main display.
    virtual void show(const std::string& text, const PixelRect& display) = 0;
    virtual void hide() = 0;
    /// Opens what `text` names and hides the field. When that fails, the field says so for a while instead.
    virtual void open(const std::string& text) = 0;
};

}  // namespace velmora
