#include "VelmoraKit/Core/UniqueFunction.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace velmora {
namespace {

TEST(UniqueFunctionTest, ownsMoveOnlyCapturesAndForwardsArguments) {
    auto owned = std::make_unique<int>(40);
    UniqueFunction<int(std::unique_ptr<int>)> add = [owned = std::move(owned)](std::unique_ptr<int> more) {
        return *owned + *more;
    };
    UniqueFunction<int(std::unique_ptr<int>)> moved = std::move(add);
    EXPECT_FALSE(add);  // NOLINT: the moved-from state is the subject
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved(std::make_unique<int>(2)), 42);
}

TEST(UniqueFunctionTest, releasesItsCapturesWhenDropped) {
    auto watched = std::make_shared<int>(1);
    UniqueFunction<void()> f = [watched] {};
    EXPECT_EQ(watched.use_count(), 2);
    f = nullptr;
    EXPECT_EQ(watched.use_count(), 1);
}

}  // namespace
}  // namespace velmora
