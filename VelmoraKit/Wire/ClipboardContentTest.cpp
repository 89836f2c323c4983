#include "VelmoraKit/Wire/ClipboardContent.h"

#include <gtest/gtest.h>

#include "VelmoraKit/Wire/ClipboardFiles.h"

namespace velmora {
namespace {

TEST(ClipboardContentTest, theKindStandsBeforeTheData) {
    EXPECT_EQ((ClipboardContent{ClipboardContent::Kind::png, {7, 8}}).encode(), (Bytes{1, 7, 8}));
    EXPECT_EQ(*ClipboardContent::decode(Bytes{0}), (ClipboardContent{ClipboardContent::Kind::text, {}}));
    EXPECT_EQ(*ClipboardContent::decode(Bytes{2, 0}), (ClipboardContent{ClipboardContent::Kind::files, {0}}));
    EXPECT_FALSE(ClipboardContent::decode(Bytes{}));
    EXPECT_FALSE(ClipboardContent::decode(Bytes{3, 1}));
}

TEST(ClipboardFilesTest, itemsFollowEachOther) {
    const ClipboardFiles files{{{.name = "é", .isFolder = true, .data = {7}}, {.name = "b", .data = {}}}};
    const Bytes wire{0, 0, 0, 2, 1, 0, 0, 0, 2, 0xC3, 0xA9, 0, 0, 0, 1, 7, 0, 0, 0, 0, 1, 'b', 0, 0, 0, 0};
    EXPECT_EQ(files.encode(), wire);
    EXPECT_EQ(*ClipboardFiles::decode(wire), files);
    for (std::size_t size = 0; size < wire.size(); ++size) {
        EXPECT_FALSE(ClipboardFiles::decode(ByteView(wire).first(size))) << size;
    }
    Bytes more = wire;
    more.push_back(9);
    EXPECT_EQ(*ClipboardFiles::decode(more), files) << "what follows is ignored";
    EXPECT_TRUE(ClipboardFiles::decode(Bytes{0, 0, 0, 0})->items.empty());
}

TEST(ClipboardFilesTest, whatAPeerSaysOfLengthsIsNotTrusted) {
    EXPECT_FALSE(ClipboardFiles::decode(Bytes{0xFF, 0xFF, 0xFF, 0xFF})) << "items";
    EXPECT_FALSE(ClipboardFiles::decode(Bytes{0, 0, 0, 1, 0, 0xFF, 0xFF, 0xFF, 0xFF, 'a'})) << "name";
    EXPECT_FALSE(ClipboardFiles::decode(Bytes{0, 0, 0, 1, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF})) << "data";
    const Bytes odd{0, 0, 0, 1, 2, 0, 0, 0, 2, 'a', 0xFF, 0, 0, 0, 0};
    EXPECT_EQ(*ClipboardFiles::decode(odd), (ClipboardFiles{{{.name = "a\xEF\xBF\xBD"}}}));
}

}  // namespace
}  // namespace velmora
