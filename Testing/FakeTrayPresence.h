#pragma once

#include <utility>

#include "Platform/TrayPresence.h"

namespace velmora {

class FakeTrayPresence final : public TrayPresence {
public:
    bool isThere() const override { return there_; }
    void setThere(bool there) {
        if (std::exchange(there_, there) == there) return;
        if (const auto tell = onChange) tell();
    }

private:
    bool there_ = false;
};

}  // namespace velmora
