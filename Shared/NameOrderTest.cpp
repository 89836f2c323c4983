#include "Shared/NameOrder.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(NameOrderTest, sortsAsPeopleDoAndIgnoresCase) {
    const NameOrder comesBefore;
    EXPECT_TRUE(comesBefore("apple", "Banana"));
    EXPECT_TRUE(comesBefore("Apple", "banana"));
    EXPECT_FALSE(comesBefore("Banana", "apple"));
    EXPECT_FALSE(comesBefore("mini", "MINI"));
    EXPECT_FALSE(comesBefore("MINI", "mini"));
    EXPECT_TRUE(comesBefore("resume", "résumé"));
    EXPECT_TRUE(comesBefore("résumé", "rz"));
    EXPECT_TRUE(comesBefore("", "a"));
    EXPECT_FALSE(comesBefore("\xFF", "\xFF")) << "bad UTF-8";
}

}  // namespace
}  // namespace velmora
