#include "Platform/Linux/EventLoop/QtMainQueue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <thread>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;

class QtMainQueueTest : public ::testing::Test {
protected:
    int argc = 1;
    char name[5] = "test";
    char* argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
    QtMainQueue queue;
};

TEST_F(QtMainQueueTest, runsBlocksOfOtherThreadsInOrderAndAnswersRunSync) {
    std::vector<int> order;
    std::thread other([&] {
        for (int i = 0; i < 100; ++i) queue.post([&, i] { order.push_back(i); });
        queue.runSync([&] {
            EXPECT_TRUE(queue.isCurrent());
            order.push_back(100);
        });
        queue.post([] { QCoreApplication::quit(); });
    });
    QCoreApplication::exec();
    other.join();
    ASSERT_EQ(order.size(), 101u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(QtMainQueueTest, timersAreNeverEarlyAndDoNotRunOnceReset) {
    const auto start = queue.now();
    HostClock::time_point ran;
    TimerToken cancelled = queue.after(1ms, [] { ADD_FAILURE() << "was reset"; });
    TimerToken kept = queue.after(3500us, [&] {
        ran = queue.now();
        QCoreApplication::quit();
    });
    cancelled.reset();
    QCoreApplication::exec();
    EXPECT_GE(ran - start, 3500us);
    EXPECT_FALSE(kept);
}

TEST_F(QtMainQueueTest, aBlockThatPostsLeavesRoomForTheLoop) {
    int rounds = 0;
    std::function<void()> again = [&] {
        if (++rounds < 1000) queue.post([&] { again(); });
    };
    queue.post([&] { again(); });
    TimerToken end = queue.after(0ms, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    EXPECT_LT(rounds, 1000);
}

}  // namespace
}  // namespace velmora
