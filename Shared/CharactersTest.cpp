#include "Shared/Characters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using testing::ElementsAre;

TEST(CharactersTest, areCutAsPeopleSeeThem) {
    EXPECT_THAT(userPerceivedCharacters("aé\xCC\x81\r\n\tz"),
                ElementsAre("a", "é\xCC\x81", "\r\n", "\t", "z"));
    EXPECT_THAT(userPerceivedCharacters("👩‍💻🇩🇪"), ElementsAre("👩‍💻", "🇩🇪"));
    EXPECT_THAT(userPerceivedCharacters("x\xFFy"), ElementsAre("x", "�", "y"));
    EXPECT_TRUE(userPerceivedCharacters("").empty());
}

TEST(CharactersTest, caseIsIgnoredInEveryScript) {
    EXPECT_TRUE(equalIgnoringCase("Büro Ωμέγα", "BÜRO ΩΜΈΓΑ"));
    EXPECT_FALSE(equalIgnoringCase("Büro", "Buro"));
    EXPECT_FALSE(equalIgnoringCase("Desk", "Desk "));
}

}  // namespace
}  // namespace velmora
