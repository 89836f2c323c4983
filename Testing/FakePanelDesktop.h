#pragma once

#include <set>

#include "Platform/PanelDesktop.h"

namespace velmora {

class FakePanelDesktop final : public PanelDesktop {
public:
    bool managesWindows() const override { return hasWindowManager; }
    void keepOutOfTaskBar(WindowId window) override { unlisted.insert(window); }
    void startWatching() override { isWatching = true; }
    void stopWatching() override { isWatching = false; }

    /// Somebody presses a button of the mouse.
    void press() {
        if (const auto tell = onPress; tell && isWatching) tell();
    }

    std::set<WindowId> unlisted;
    bool hasWindowManager = true, isWatching = false;
};

}  // namespace velmora
