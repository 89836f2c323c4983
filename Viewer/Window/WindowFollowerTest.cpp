#include "Viewer/Window/WindowFollower.h"

#include <gtest/gtest.h>

#include <vector>

#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct WindowFollowerTest : testing::Test {
    WindowFollowerTest() {
        follower.onRequest = [this](const DisplayRequest& request) { asked.push_back(request); };
        follower.setLastRequest(size);
    }
    VirtualTime time;
    VirtualQueue main{time, "main"};
    DisplayRequest size{800, 600, 1};
    bool isDragged = false;
    std::vector<DisplayRequest> asked;
    WindowFollower follower{[this] { return size; }, [this] { return isDragged; }, main};
};

TEST_F(WindowFollowerTest, aWindowAtRestIsAskedForOnce) {
    size.width = 900;
    follower.windowChanged();  // the host's display does not follow
    time.advanceBy(1s);
    EXPECT_TRUE(asked.empty());
    follower.setFollowing(true);
    ASSERT_EQ(asked.size(), 1u);
    follower.setFollowing(true);
    for (int width = 1000; width < 1010; ++width) {
        size.width = width;
        follower.windowChanged();
        time.advanceBy(200ms);
    }
    EXPECT_EQ(asked.size(), 1u);
    time.advanceBy(100ms);
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked.back(), (DisplayRequest{1009, 600, 1}));
    follower.windowChanged();  // back to where it was
    time.advanceBy(1s);
    EXPECT_EQ(asked.size(), 2u);
    size.scale = 2;
    follower.windowChanged();
    time.advanceBy(1s);
    EXPECT_EQ(asked.size(), 3u);
}

TEST_F(WindowFollowerTest, nothingIsAskedWhileSomebodyDragsOrAfterTheEnd) {
    follower.setFollowing(true);
    isDragged = true;
    size.height = 700;
    follower.windowChanged();
    time.advanceBy(5s);
    EXPECT_TRUE(asked.empty());
    isDragged = false;
    time.advanceBy(300ms);
    EXPECT_EQ(asked.size(), 1u);
    size.height = 800;
    follower.windowChanged();
    follower.setFollowing(false);
    time.advanceBy(5s);
    EXPECT_EQ(asked.size(), 1u);
}

}  // namespace
}  // namespace velmora
