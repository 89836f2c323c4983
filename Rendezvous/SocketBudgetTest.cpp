#include "Rendezvous/SocketBudget.h"

#include <gtest/gtest.h>

#include "Rendezvous/ExpiringTable.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(SocketBudgetTest, theOldestHalfOpenSocketMakesRoom) {
    SocketBudget budget({.most = 4, .mostHalfOpen = 3, .mostOfSource = 10});
    for (const int id : {1, 2, 3}) EXPECT_TRUE(budget.open(SocketId(id), "a").admitted);
    budget.settle(SocketId{1});
    auto last = budget.open(SocketId{4}, "a");
    EXPECT_TRUE(last.admitted);
    EXPECT_FALSE(last.victim) << "there is room";
    last = budget.open(SocketId{5}, "a");
    EXPECT_TRUE(last.admitted);
    EXPECT_EQ(last.victim, SocketId{2}) << "1 has shown what it is for";
    last = budget.open(SocketId{6}, "a");
    EXPECT_EQ(last.victim, SocketId{3}) << "not 2 again, which is on its way out";
    for (const int id : {2, 3}) budget.close(SocketId(id));
    for (const int id : {4, 5, 6}) budget.settle(SocketId(id));
    EXPECT_FALSE(budget.open(SocketId{7}, "a").admitted) << "full of those that are known";
    budget.close(SocketId{4});
    EXPECT_TRUE(budget.open(SocketId{8}, "a").admitted);
}

TEST(SocketBudgetTest, oneSourceHasItsShare) {
    SocketBudget budget({.most = 10, .mostHalfOpen = 10, .mostOfSource = 2});
    EXPECT_TRUE(budget.open(SocketId{1}, "a").admitted && budget.open(SocketId{2}, "a").admitted);
    EXPECT_FALSE(budget.open(SocketId{3}, "a").admitted);
    EXPECT_TRUE(budget.open(SocketId{4}, "b").admitted);
    budget.close(SocketId{1});
    budget.close(SocketId{1});
    EXPECT_TRUE(budget.open(SocketId{5}, "a").admitted);
    EXPECT_FALSE(budget.open(SocketId{6}, "a").admitted) << "closing twice gives back once";
    // Behind a proxy it is known later.
    EXPECT_TRUE(budget.open(SocketId{7}, "").admitted && budget.open(SocketId{8}, "").admitted);
    EXPECT_TRUE(budget.attribute(SocketId{7}, "b"));
    EXPECT_FALSE(budget.attribute(SocketId{8}, "b"));
}

TEST(ExpiringTableTest, neverHoldsMoreThanItMay) {
    ExpiringTable<int, int> table({.capacity = 2, .lifetime = 10s});
    const HostClock::time_point start{100s};
    table.touch(1, start) = 11;
    table.touch(2, start + 1s) = 22;
    table.touch(1, start + 2s);
    table.touch(3, start + 3s) = 33;
    EXPECT_EQ(table.find(2, start + 3s), nullptr) << "untouched for longest";
    EXPECT_EQ(*table.find(1, start + 3s), 11);
    EXPECT_EQ(table.find(1, start + 12s), nullptr) << "too old";
    EXPECT_EQ(table.touch(1, start + 12s), 0) << "and begun anew";
    EXPECT_EQ(table.size(), 2U);
}

}  // namespace
}  // namespace velmora
