#include "Platform/Linux/Clipboard/UriList.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(UriListTest, filesOfThisMachineAreFoundInWhatProgramsCopy) {
    EXPECT_THAT(localFiles("# comment\r\nfile:///a%20b\r\nfile://localhost/c%C3%A9\r\n"),
                ElementsAre("/a b", "/cé"));
    EXPECT_THAT(localFiles("copy\nfile:///a\nfile:/b"), ElementsAre("/a", "/b")) << "a file manager's list";
    EXPECT_THAT(localFiles(std::string_view("file:///a\0", 10)), ElementsAre("/a")) << "a string of C";
    for (const std::string_view none : {"", "http://x/y", "file://elsewhere/a", "file:a", "file://", "/a",
                                        "file:///%", "file:///%4", "file:///%zz", "file:///a%00b"}) {
        EXPECT_THAT(localFiles(none), IsEmpty()) << none;
    }
    EXPECT_THAT(localFiles(std::string_view("file:///a\0b", 11)), IsEmpty());
}

TEST(UriListTest, anAddressSpellsOutWhatItMay) {
    EXPECT_EQ(fileUri("/a b/%é~_-."), "file:///a%20b/%25%C3%A9~_-.");
}

}  // namespace
}  // namespace velmora
