#include "Host/KeyboardLayoutMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Testing/FakeKeyboardLayout.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using Key = KeyboardLayoutMap::Key;
constexpr KeyboardLayout::Modifiers plain{}, shift{.shift = true}, option{.option = true},
    shiftOption{.shift = true, .option = true};

class KeyboardLayoutMapTest : public testing::Test {
protected:
    std::optional<Key> keyFor(const std::string& characters) { return map.keyFor(characters); }
    static std::string lastLogLine() {
        const auto entries = DebugLog::shared().entries();
        return entries.empty() ? "" : entries.back().text;
    }

    VirtualTime time;
    VirtualQueue queue{time};
    FakeKeyboardLayout layout;
    KeyboardLayoutMap map{layout, queue};
};

TEST_F(KeyboardLayoutMapTest, thePlainestWayOfTypingWinsAndThenTheLowestKeyCode) {
    layout.set("German", {{40, shiftOption, "a"},
                          {30, shift, "a"},
                          {9, plain, "a"},
                          {7, plain, "a"},
                          {3, shiftOption, "@"},
                          {12, option, "@"},
                          {127, shift, "?"},
                          {128, plain, "!"},
                          {8, plain, "ch"}});
    EXPECT_EQ(keyFor("a"), (Key{.keyCode = 7}));
    EXPECT_EQ(keyFor("@"), (Key{.keyCode = 12, .option = true}));
    EXPECT_EQ(keyFor("?"), (Key{.keyCode = 127, .shift = true}));
    EXPECT_EQ(keyFor("ch"), (Key{.keyCode = 8}));
    EXPECT_EQ(keyFor("!"), std::nullopt);
    EXPECT_EQ(keyFor(""), std::nullopt);
    EXPECT_EQ(lastLogLine(), "Keyboard layout on this Mac: German (4 characters mapped)");
}

TEST_F(KeyboardLayoutMapTest, theLayoutIsLookedAtOncePerSecondAndReadWhenItChanged) {
    layout.set("US", {{6, plain, "z"}});
    EXPECT_EQ(keyFor("z"), (Key{.keyCode = 6}));
    layout.set("German", {{16, plain, "z"}});
    time.advanceBy(std::chrono::seconds(1));
    EXPECT_EQ(keyFor("z"), (Key{.keyCode = 6}));
    EXPECT_EQ(layout.lookups, 1);
    time.advanceBy(std::chrono::microseconds(1));
    EXPECT_EQ(keyFor("z"), (Key{.keyCode = 16}));
    EXPECT_EQ(layout.lookups, 2);
    layout.set("German", {{1, plain, "z"}});  // same id: nothing is read
    time.advanceBy(std::chrono::seconds(2));
    EXPECT_EQ(keyFor("z"), (Key{.keyCode = 16}));
}

TEST_F(KeyboardLayoutMapTest, aLayoutWithoutCharactersMapsNothingAndNoKeyboardChangesNothing) {
    layout.set("US", {{6, plain, "z"}});
    EXPECT_TRUE(keyFor("z"));
    layout.unplug();
    time.advanceBy(std::chrono::seconds(2));
    EXPECT_TRUE(keyFor("z"));
    layout.set("Ideographs", {});
    time.advanceBy(std::chrono::seconds(2));
    EXPECT_FALSE(keyFor("z"));
}

}  // namespace
}  // namespace velmora
