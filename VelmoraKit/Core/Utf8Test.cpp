#include "VelmoraKit/Core/Utf8.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

std::string repaired(std::string_view text) {
    return repairedUtf8(viewOf(text));
}

TEST(Utf8Test, validTextIsLeftAlone) {
    const std::string text = "a\0b ü “Büro” \xF0\x9F\x96\xA5 \xF4\x8F\xBF\xBF";
    EXPECT_EQ(repaired(text), text);
    EXPECT_EQ(repaired(""), "");
}

TEST(Utf8Test, badSequencesBecomeReplacementCharacters) {
    EXPECT_EQ(repaired("a\xFF"
                       "b"),
              "a�b");
    EXPECT_EQ(repaired("\xE2\x82"), "�");             // cut short at the end
    EXPECT_EQ(repaired("\xE2\x82z"), "�z");           // cut short before another character
    EXPECT_EQ(repaired("\xC0\xAF"), "��");            // overlong
    EXPECT_EQ(repaired("\xED\xA0\x80"), "���");       // a surrogate
    EXPECT_EQ(repaired("\xF4\x90\x80\x80"), "����");  // past the last code point
    EXPECT_EQ(repaired("\x80ok"), "�ok");
}

TEST(Utf8Test, aPrintableLineIsOneLineAndCommandsNothing) {
    EXPECT_EQ(printableLine("“Büro” 日本", 100), "“Büro” 日本");
    EXPECT_EQ(printableLine("a\nSERVER  all is well\r\x1b[2J\x7f", 100), "a SERVER  all is well  [2J ");
    EXPECT_EQ(printableLine("a\u009b2Jb\u00a0", 100), "a 2Jb\u00a0");
    EXPECT_EQ(printableLine("a\u2028b\u2029c\u202ed\u2066e\u2030\u2065", 100), "a b c d e\u2030\u2065");
    EXPECT_EQ(printableLine("\xff", 100), "�");
}

TEST(Utf8Test, aPrintableLineIsCutBetweenCharacters) {
    EXPECT_EQ(printableLine("abcdef", 6), "abcdef");
    EXPECT_EQ(printableLine("abcdefg", 6), "abcdef…");
    for (const std::size_t longest : {7u, 8u, 9u}) EXPECT_EQ(printableLine("abcdef日!", longest), "abcdef…");
    EXPECT_EQ(printableLine("\x80\x80\x80", 2), "…");
}

}  // namespace
}  // namespace velmora
