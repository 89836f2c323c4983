#pragma once

#include <cstdint>
#include <string>

#include "Platform/TextFocusSource.h"

namespace velmora {

/// An accessible object on the accessibility bus: whose, and which.
struct AtSpiObject {
    std::string program;  // its unique name
    std::string path;
    bool operator==(const AtSpiObject&) const = default;
};

/// The states of an accessible, one bit each; the numbers are AT-SPI's.
struct AtSpiStates {
    enum class State { active = 1, editable = 7, focused = 12, showing = 25, readOnly = 43 };
    std::uint64_t bits = 0;
    bool has(State state) const { return (bits >> static_cast<int>(state) & 1) != 0; }
};

/// What an accessible with this role (AT-SPI's number) and these states is to whoever wants to type. That it
/// has text and a caret says nothing, since every label has; toolkits tell by the state "editable". Roles
/// that also stand for text to be read (text, combo box) count only with it.
FocusedElement focusedElementOf(std::uint32_t role, AtSpiStates states);

}  // namespace velmora
