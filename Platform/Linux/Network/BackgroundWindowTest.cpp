#include "Platform/Linux/Network/BackgroundWindow.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// A path whose queue grows with what is under way beyond 200 kB, at 5 MB a second.
struct Path {
    std::chrono::microseconds delay(std::uint64_t underWay) const {
        return std::chrono::microseconds(underWay > room ? (underWay - room) / 5 : 0);
    }
    void roundTrips(BackgroundWindow& window, int count) const {
        for (int i = 0; i < count; ++i)
            window.acknowledged(window.bytes(), window.bytes(), delay(window.bytes()));
    }
    std::uint64_t room = 200'000;
};

TEST(BackgroundWindowTest, fillsAPathUpToItsTargetAndFollowsIt) {
    BackgroundWindow window;
    Path path;
    path.roundTrips(window, 3);
    EXPECT_GT(window.bytes(), path.room) << "by doubling";
    for (const std::uint64_t room : {200'000u, 1'000'000u, 40'000u}) {
        path.room = room;
        path.roundTrips(window, 60);
        EXPECT_NEAR(static_cast<double>(path.delay(window.bytes()).count()), 25'000, 5'000) << room;
    }
    path.room = 0;
    for (int i = 0; i < 60; ++i) window.acknowledged(window.bytes(), window.bytes(), 1s);
    EXPECT_EQ(window.bytes(), 16u * 1024) << "it always goes on";
}

TEST(BackgroundWindowTest, whatIsNotUsedDoesNotGrow) {
    BackgroundWindow window;
    for (int i = 0; i < 1000; ++i) window.acknowledged(1'000, 20'000, 0ms);
    EXPECT_EQ(window.bytes(), 64u * 1024);
}

}  // namespace
}  // namespace velmora
