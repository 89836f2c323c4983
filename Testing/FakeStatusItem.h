#pragma once

#include <optional>

#include "App/StatusItem.h"

namespace velmora {

/// A tray item that nobody sees: the test clicks on it and moves it.
class FakeStatusItem final : public StatusItem {
public:
    bool isAvailable() const override { return available_; }
    std::optional<QRect> place() const override { return where; }
    void setHighlighted(bool highlighted) override { isHighlighted = highlighted; }

    void setAvailable(bool available) {
        available_ = available;
        if (const auto tell = onAvailability) tell();
    }
    void click() {
        if (const auto tell = onClick) tell();
    }

    std::optional<QRect> where = QRect(600, 0, 24, 24);
    bool isHighlighted = false;

private:
    bool available_ = true;
};

}  // namespace velmora
