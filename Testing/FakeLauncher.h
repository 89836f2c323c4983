#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Launcher.h"

namespace velmora {

/// A launcher without a screen.
class FakeLauncher final : public Launcher {
public:
    void show(const std::string& text, const PixelRect& display) override {
        shown = text;
        shownOn = display;
    }
    void hide() override { shown.reset(); }
    void open(const std::string& text) override {
        shown.reset();
        opened.push_back(text);
    }

    std::optional<std::string> shown;
    PixelRect shownOn;
    std::vector<std::string> opened;
};

}  // namespace velmora
