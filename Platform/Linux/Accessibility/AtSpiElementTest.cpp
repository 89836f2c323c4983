#include "Platform/Linux/Accessibility/AtSpiElement.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace velmora {
namespace {

AtSpiStates states(std::initializer_list<int> numbers) {
    AtSpiStates all;
    for (const int number : numbers) all.bits |= std::uint64_t{1} << number;
    return all;
}

// The numbers were read off these programs; 8, 11, 12, 24, 25, 30: enabled, focusable, focused, sensitive,
// showing, visible.
TEST(AtSpiElementTest, whatProgramsSayOfThemselvesTellsWhetherTextGoesThere) {
    using Role = FocusedElement::Role;
    const FocusedElement nothing;
    struct Case {
        const char* what;
        std::uint32_t role;
        AtSpiStates states;
        FocusedElement element;
    };
    for (const Case& c : {
             Case{"GTK text view (mousepad)", 61, {0x43020180 | 1 << 12}, {Role::textArea, true}},
             Case{"Qt text edit", 61, {0x43220182}, {Role::textArea, true}},
             Case{"GTK entry", 61, states({7, 8, 11, 12, 24, 25, 26, 30}), {Role::textArea, true}},
             Case{"password", 40, states({7, 11, 12}), {Role::secureTextField, true}},
             Case{"web input", 79, states({7, 11, 12, 26}), {Role::textField, true}},
             Case{"web input that is only read", 79, states({7, 11, 12, 26, 43}), nothing},
             Case{"editable section of a page", 85, states({7, 11, 12, 17}), {Role::other, true}},
             Case{"page", 95, states({11, 12, 38}), nothing},
             Case{"text view that is only read", 61, states({8, 11, 12, 17}), nothing},
             Case{"combo box with a field", 11, states({7, 11, 12}), {Role::comboBox, true}},
             Case{"combo box to choose from", 11, states({9, 11, 12}), nothing},
             Case{"spin button", 52, states({7, 11, 12}), {Role::other, true}},
             Case{"terminal", 60, states({11, 12, 17}), {Role::textArea, false}},
             Case{"menu (GTK)", 33, {1136656640}, nothing},
             Case{"button", 43, states({8, 11, 12}), nothing},
             Case{"a role of tomorrow", 4'000'000'000, {}, nothing},
         }) {
        EXPECT_EQ(focusedElementOf(c.role, c.states), c.element) << c.what;
    }
}

}  // namespace
}  // namespace velmora
