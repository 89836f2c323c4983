#include "Shared/FileNames.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(FileNamesTest, onlyLettersMarksAndNumbersStay) {
    EXPECT_EQ(fileNamePart("Büro 2"), "Büro-2");
    EXPECT_EQ(fileNamePart("e\xCC\x81t"), "e\xCC\x81t");  // a combining accent
    EXPECT_EQ(fileNamePart("北京.local"), "北京-local");
    EXPECT_EQ(fileNamePart("a/../b"), "a----b");
    EXPECT_EQ(fileNamePart("🖥 x"), "--x");
    EXPECT_EQ(fileNamePart("\xFFx"), "-x");
    EXPECT_EQ(fileNamePart(""), "");
}

}  // namespace
}  // namespace velmora
