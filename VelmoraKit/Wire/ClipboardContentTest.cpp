#include "VelmoraKit/Wire/ClipboardContent.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(ClipboardContentTest, theKindStandsBeforeTheData) {
    EXPECT_EQ((ClipboardContent{ClipboardContent::Kind::png, {7, 8}}).encode(), (Bytes{1, 7, 8}));
    EXPECT_EQ(*ClipboardContent::decode(Bytes{0}), (ClipboardContent{ClipboardContent::Kind::text, {}}));
    EXPECT_EQ(*ClipboardContent::decode(Bytes{2, 0}), (ClipboardContent{ClipboardContent::Kind::files, {0}}));
    EXPECT_FALSE(ClipboardContent::decode(Bytes{}));
    EXPECT_FALSE(ClipboardContent::decode(Bytes{3, 1}));
}

}  // namespace
}  // namespace velmora
