#pragma once

#include <set>

#include "Platform/ShortcutGrab.h"

namespace velmora {

/// A desktop that lends its shortcuts as long as nothing forbids it.
class FakeShortcutGrab final : public ShortcutGrab {
public:
    bool allowed = true;
    int held() const { return static_cast<int>(windows_.size()); }

    bool take(WindowId window) override {
        if (allowed) windows_.insert(window);
        return allowed;
    }
    void giveBack(WindowId window) override { windows_.erase(window); }

private:
    std::set<WindowId> windows_;
};

}  // namespace velmora
