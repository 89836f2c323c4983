#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Platform/KeyboardLayout.h"

namespace velmora {

/// A layout that a test writes down: which characters which key gives.
class FakeKeyboardLayout final : public KeyboardLayout {
public:
    struct Entry {
        std::uint16_t keyCode = 0;
        Modifiers modifiers;
        std::string characters;
    };
    void set(std::string id, std::vector<Entry> entries) {
        id_ = std::move(id);
        entries_ = std::move(entries);
    }
    /// No keyboard to ask.
    void unplug() { id_.reset(); }

    std::optional<std::string> currentId() override {
        ++lookups;
        return id_;
    }
    bool hasCharacters() override { return !entries_.empty(); }
    std::string charactersFor(std::uint16_t keyCode, Modifiers modifiers) override {
        for (const Entry& entry : entries_) {
            if (entry.keyCode == keyCode && entry.modifiers == modifiers) return entry.characters;
        }
        return {};
    }

    int lookups = 0;  // how often the layout was looked at

private:
    std::optional<std::string> id_;
    std::vector<Entry> entries_;
};

}  // namespace velmora
