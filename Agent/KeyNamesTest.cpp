#include "Agent/KeyNames.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Combo = KeyNames::Combo;

TEST(KeyNamesTest, shortcutsAreUnderstood) {
    EXPECT_EQ(KeyNames::parse("CMD+Space"), (Combo{.keyCode = 49, .flags = 0x100000}));
    EXPECT_EQ(KeyNames::parse(" cmd + c "), (Combo{.keyCode = 8, .characters = "c", .flags = 0x100000}));
    EXPECT_EQ(KeyNames::parse("ctrl+ctrl+opt+A"), (Combo{.keyCode = 0, .characters = "a", .flags = 0xC0000}));
    EXPECT_EQ(KeyNames::parse("fn+shift+/"), (Combo{.keyCode = 44, .characters = "/", .flags = 0x820000}));
    EXPECT_EQ(KeyNames::parse("0")->keyCode, 29);
    EXPECT_EQ(KeyNames::parse("z")->keyCode, 6);
    EXPECT_EQ(KeyNames::parse("delete")->keyCode, 51);
    EXPECT_EQ(KeyNames::parse("del")->keyCode, 117);
    EXPECT_EQ(KeyNames::parse("f12")->keyCode, 111);
}

TEST(KeyNamesTest, whatIsNoKeyIsRefused) {
    for (const char* text :
         {"", "+", "++", "cmd+", "cmd++", "shift", "f13", "cmd+é", "hyper+a", "a+b", " ", "a+ "}) {
        EXPECT_EQ(KeyNames::parse(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace velmora
