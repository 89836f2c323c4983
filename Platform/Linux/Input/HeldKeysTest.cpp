#include "Platform/Linux/Input/HeldKeys.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

namespace velmora {
namespace {

constexpr std::uint8_t a = 38, b = 56, shiftKey = 50, rightShift = 62, controlKey = 37, altKey = 64,
                       superKey = 133, altGrKey = 108;
using enum ModifierKind;

/// What the window system gets: "+" presses, "-" lifts.
class HeldKeysTest : public testing::Test {
protected:
    HeldKeysTest() {
        keys.setLayout({.kinds = {{shiftKey, shift},
                                  {rightShift, shift},
                                  {controlKey, control},
                                  {altKey, option},
                                  {superKey, command},
                                  {altGrKey, level3}},
                        .keyFor = {shiftKey, controlKey, altKey, superKey, altGrKey}});
    }
    std::string took() { return std::exchange(sent, {}); }
    static std::string nameOf(HeldKeys::Device device, std::uint8_t code) {
        if (device == HeldKeys::Device::button) return fmt::format("button{}", code);
        switch (code) {
            case a:
                return "a";
            case b:
                return "b";
            case shiftKey:
                return "shift";
            case rightShift:
                return "rightShift";
            case controlKey:
                return "control";
            case altKey:
                return "alt";
            case superKey:
                return "super";
            case altGrKey:
                return "altGr";
            default:
                return "?";
        }
    }

    std::string sent;
    HeldKeys keys{[this](HeldKeys::Device device, std::uint8_t code, bool down) {
        sent += fmt::format("{}{}{}", sent.empty() ? "" : " ", down ? "+" : "-", nameOf(device, code));
    }};
};

TEST_F(HeldKeysTest, missingModifiersGoDownBeforeAKeyAndUpAfterIt) {
    keys.pressKey(a, {shift, command});
    EXPECT_EQ(took(), "+shift +super +a");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a -shift -super");
    keys.pressButton(1, {control});
    EXPECT_EQ(took(), "+control +button1");
    keys.releaseButton(1);
    EXPECT_EQ(took(), "-button1 -control");
}

TEST_F(HeldKeysTest, modifiersThatArePressedCountAndAreLeftAlone) {
    keys.pressKey(rightShift, {});
    keys.pressKey(a, {shift});
    keys.releaseKey(a);
    keys.releaseKey(rightShift);
    EXPECT_EQ(took(), "+rightShift +a -a -rightShift");
}

TEST_F(HeldKeysTest, heldModifiersThatMustNotApplyAreLiftedAndPutBack) {
    keys.pressKey(shiftKey, {});
    keys.pressKey(controlKey, {});
    took();
    keys.pressKey(a, {control});
    EXPECT_EQ(took(), "-shift +a");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a +shift");
    keys.pressKey(a, {});
    EXPECT_EQ(took(), "-shift -control +a");
    keys.releaseKey(shiftKey);  // the person lets go while it is up already
    EXPECT_EQ(took(), "");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a +control");
}

TEST_F(HeldKeysTest, ofKeysThatRollOverTheLastOneRulesTheModifiers) {
    keys.pressKey(a, {shift});
    EXPECT_EQ(took(), "+shift +a");
    keys.pressKey(b, {});
    EXPECT_EQ(took(), "-shift +b");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a");
    keys.pressKey(a, {shift});
    keys.releaseKey(b);
    EXPECT_EQ(took(), "+shift +a -b");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a -shift");
}

TEST_F(HeldKeysTest, aHeldKeyRepeatsByItselfAndGoesDownAnewForOtherModifiers) {
    keys.pressKey(a, {});
    keys.pressKey(a, {});
    keys.pressButton(1, {});
    keys.pressButton(1, {shift});
    EXPECT_EQ(took(), "+a +button1");
    keys.pressKey(a, {shift});
    EXPECT_EQ(took(), "-a +shift +a");
}

TEST_F(HeldKeysTest, upsOfWhatIsNotHeldDoNothing) {
    keys.releaseKey(a);
    keys.releaseKey(shiftKey);
    keys.releaseButton(3);
    EXPECT_EQ(took(), "");
}

TEST_F(HeldKeysTest, aModifierPressedWhileWePressItBecomesThePersons) {
    keys.pressKey(a, {shift});
    took();
    keys.pressKey(shiftKey, {});
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a");
    keys.releaseKey(shiftKey);
    EXPECT_EQ(took(), "-shift");
}

TEST_F(HeldKeysTest, aPersonsTapOpensMenusAndOursDoNot) {
    keys.pressKey(altKey, {});
    keys.releaseKey(altKey);
    EXPECT_EQ(took(), "+alt -alt");
    keys.pressKey(altKey, {});
    keys.pressKey(a, {});
    EXPECT_EQ(took(), "+alt +control -alt -control +a");
    keys.releaseKey(a);
    EXPECT_EQ(took(), "-a +alt");
    keys.releaseKey(altKey);
    EXPECT_EQ(took(), "+control -alt -control");
    keys.pressKey(superKey, {});
    keys.pressKey(a, {command});
    keys.releaseKey(a);
    keys.releaseKey(superKey);
    EXPECT_EQ(took(), "+super +a -a -super");
}

TEST_F(HeldKeysTest, aHeldThirdLevelKeyIsTheOptionThatIsAskedFor) {
    keys.pressKey(altGrKey, {});
    keys.pressKey(a, {option});
    keys.releaseKey(a);
    EXPECT_EQ(took(), "+altGr +a -a");
    keys.pressKey(a, {level3});
    keys.releaseKey(a);
    EXPECT_EQ(took(), "+a -a");
    keys.pressKey(a, {});
    EXPECT_EQ(took(), "-altGr +a");
}

TEST_F(HeldKeysTest, tapsKeepTheirModifiersForTheNextOneUntilAllIsPutBack) {
    keys.pressKey(controlKey, {});
    keys.pressKey(a, {control});
    took();
    keys.tapKey(b, {shift});
    keys.tapKey(a, {shift});  // held until now
    keys.tapButton(4, {shift});
    EXPECT_EQ(took(), "-control +shift +b -b -a +a -a +button4 -button4");
    keys.putBack();
    EXPECT_EQ(took(), "-shift +control");
}

TEST_F(HeldKeysTest, inTheEndNothingStaysDown) {
    keys.pressKey(shiftKey, {});
    keys.pressKey(altKey, {});
    keys.pressButton(3, {shift});
    keys.pressKey(a, {shift, command});
    took();
    keys.releaseEverything();
    EXPECT_EQ(took(), "-a -button3 -super -shift");
    keys.releaseEverything();
    keys.releaseKey(altKey);
    keys.putBack();
    EXPECT_EQ(took(), "");
}

}  // namespace
}  // namespace velmora
