#include "Rendezvous/SeenHosts.h"

#include <gtest/gtest.h>

#include <string>

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr SeenHosts::Time now{1'800'000'000s};

TEST(SeenHostsTest, itsFileBringsItBackAndNothingElseIsTaken) {
    SeenHosts before;
    before.remember(HostNumber{42}, "042137", now - 24h);
    before.remember(HostNumber{123456789}, "777777", now - 31 * 24h);
    before.remember(HostNumber{7}, "111111", now + 365 * 24h);  // by a clock that ran ahead
    const std::string text = before.text();
    EXPECT_EQ(text.find("042137"), std::string::npos);

    SeenHosts after;
    EXPECT_EQ(after.readFile(text + "rubbish\n000000042 00 00 5\n000000042\n\n", now), 4U);
    EXPECT_EQ(after.size(), 2U);
    EXPECT_TRUE(after.matches(HostNumber{42}, "042137", now));
    EXPECT_FALSE(after.matches(HostNumber{42}, "042138", now));
    EXPECT_FALSE(after.matches(HostNumber{123456789}, "777777", now)) << "too old";
    EXPECT_TRUE(after.matches(HostNumber{7}, "111111", now));
    EXPECT_FALSE(after.matches(HostNumber{7}, "111111", now + 30 * 24h)) << "in its future for ever";
    for (const auto* foreign : {"", "\n", "root:x:0:0\n", "velmora seen hosts 2\n"}) {
        EXPECT_EQ(SeenHosts().readFile(foreign, now), std::nullopt) << foreign;
    }
}

TEST(SeenHostsTest, whoKnewAnEarlierPasswordKnowsNothing) {
    SeenHosts seen;
    seen.remember(HostNumber{1}, "111111", now);
    const auto mark = seen.markOf(HostNumber{1});
    seen.remember(HostNumber{1}, "111111", now + 1h);
    EXPECT_EQ(seen.markOf(HostNumber{1}), mark) << "the same password";
    seen.remember(HostNumber{1}, "222222", now + 2h);
    EXPECT_NE(seen.markOf(HostNumber{1}), mark);
}

}  // namespace
}  // namespace velmora
