#include "Platform/Linux/Accessibility/AtSpiElement.h"

namespace velmora {

namespace {

// AT-SPI's numbers.
constexpr std::uint32_t comboBox = 11, passwordText = 40, terminal = 60, text = 61, autocomplete = 76,
                        entry = 79;

FocusedElement::Role roleOf(std::uint32_t role, bool isEditable) {
    using Role = FocusedElement::Role;
    switch (role) {
        case passwordText:
            return Role::secureTextField;
        case entry:
            return Role::textField;
        case terminal:  // takes keys, though what it shows cannot be edited
            return Role::textArea;
        case text:
            return isEditable ? Role::textArea : Role::other;
        case comboBox:
        case autocomplete:
            return isEditable ? Role::comboBox : Role::other;
        default:
            return Role::other;
    }
}

}  // namespace

FocusedElement focusedElementOf(std::uint32_t role, AtSpiStates states) {
    using State = AtSpiStates::State;
    if (states.has(State::readOnly)) return {};
    const bool isEditable = states.has(State::editable);
    return {.role = roleOf(role, isEditable), .isEditable = isEditable};
}

}  // namespace velmora
