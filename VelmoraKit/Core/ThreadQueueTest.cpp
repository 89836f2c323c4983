#include "VelmoraKit/Core/ThreadQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(ThreadQueueTest, runsBlocksFromManyThreadsOneAtATimeInOrder) {
    ThreadQueue queue("velmora.test");
    std::vector<std::vector<int>> seen(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i)
                queue.post([&, t, i] { seen[static_cast<std::size_t>(t)].push_back(i); });
        });
    }
    for (auto& thread : threads) thread.join();
    queue.runSync([] {});
    for (const auto& numbers : seen) {
        ASSERT_EQ(numbers.size(), 500u);
        EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    }
}

TEST(ThreadQueueTest, runSyncOnTheQueueItselfRunsAtOnce) {
    ThreadQueue queue("velmora.test");
    std::vector<int> order;
    queue.runSync([&] {
        EXPECT_TRUE(queue.isCurrent());
        queue.runSync([&] { order.push_back(1); });
        order.push_back(2);
    });
    EXPECT_EQ(order, (std::vector{1, 2}));
    EXPECT_FALSE(queue.isCurrent());
}

TEST(ThreadQueueTest, timersRunInOrderOfTheirTimeAndNotOnceReset) {
    ThreadQueue queue("velmora.test");
    std::promise<std::vector<int>> result;
    std::vector<int> order;
    TimerToken late, early, cancelled;
    queue.runSync([&] {
        late = queue.after(4ms, [&] {
            order.push_back(2);
            result.set_value(order);
        });
        early = queue.after(1ms, [&] {
            order.push_back(1);
            cancelled.reset();
        });
        cancelled = queue.after(2ms, [&] { order.push_back(99); });
    });
    EXPECT_EQ(result.get_future().get(), (std::vector{1, 2}));
}

TEST(ThreadQueueTest, destructionDropsWhatHasNotRun) {
    auto watched = std::make_shared<int>(0);
    std::atomic<bool> ran = false;
    {
        ThreadQueue queue("velmora.test");
        TimerToken token;
        queue.runSync([&] { token = queue.after(1h, [&ran, watched] { ran = true; }); });
        EXPECT_EQ(watched.use_count(), 2);
        queue.runSync([&] { token = {}; });
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(watched.use_count(), 1);
}

TEST(ThreadQueueTest, aQueueThatHasEndedTakesNothingAndHoldsNobodyUp) {
    ThreadQueue queue("velmora.test");
    auto held = std::make_shared<int>(0);
    bool ran = false;
    queue.end();
    queue.post([&ran, held] { ran = true; });
    queue.runSync([&ran] { ran = true; });
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_FALSE(ran);
    queue.end();
}

}  // namespace
}  // namespace velmora
