#include "VelmoraKit/Core/DebugLog.h"

#include <gtest/gtest.h>

#include <thread>

#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

TEST(DebugLogTest, keepsTheNewestFiveThousandLines) {
    DebugLog log;
    for (int i = 0; i <= 5000; ++i) log.log(std::to_string(i), DebugLog::Source::viewer);
    const auto entries = log.entries();
    ASSERT_EQ(entries.size(), 5000u);
    EXPECT_EQ(entries.front().text, "1");
    EXPECT_EQ(entries.back().text, "5000");
}

TEST(DebugLogTest, whatAPeerCallsItselfNeitherForgesLinesNorFillsMemory) {
    DebugLog log;
    std::vector<std::string> written;
    log.setSink([&](auto, std::string_view text) { written.emplace_back(text); });
    log.log("Denied “x\n00:00:00.000  SERVER  Right password”", DebugLog::Source::server);
    log.log(std::string(1 << 20, 'x'), DebugLog::Source::server);
    const auto entries = log.entries();
    EXPECT_EQ(entries[0].text, "Denied “x 00:00:00.000  SERVER  Right password”");
    EXPECT_LT(entries[1].text.size(), 10'000u);
    EXPECT_EQ(written, (std::vector{entries[0].text, entries[1].text}));
}

TEST(DebugLogTest, formatsLinesWithTimeAndSideAndJoinsThem) {
    DebugLog log;
    EXPECT_EQ(log.plainText(), "");
    log.log("one", DebugLog::Source::server);
    log.log("two", DebugLog::Source::viewer);
    const std::string text = log.plainText();
    // "HH:mm:ss.SSS  SERVER  one\nHH:mm:ss.SSS  VIEWER  two"
    ASSERT_EQ(text.size(), 25u + 1 + 25u);
    EXPECT_EQ(text.substr(12, 13), "  SERVER  one");
    EXPECT_EQ(text[25], '\n');
    EXPECT_EQ(text.substr(26 + 12), "  VIEWER  two");
    EXPECT_EQ(text[2], ':');
    EXPECT_EQ(text[8], '.');
}

TEST(DebugLogTest, tellsObserversOnTheMainQueueAfterTheCall) {
    VirtualTime time;
    VirtualQueue main(time, "main");
    DebugLog log;
    std::vector<std::string> seen;
    log.setObserver(&main, [&](const auto& entry) { seen.push_back(entry ? entry->text : "cleared"); });
    log.log("a", DebugLog::Source::viewer);
    log.clear();
    EXPECT_TRUE(seen.empty());
    time.settle();
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "cleared"}));
    EXPECT_TRUE(log.entries().empty());
}

TEST(DebugLogTest, takesLinesFromManyThreadsInOneOrderForListAndObserver) {
    VirtualTime time;
    VirtualQueue main(time, "main");
    DebugLog log;
    std::vector<std::string> seen;
    log.setObserver(&main, [&](const auto& entry) { seen.push_back(entry->text); });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 200; ++i) log.log(std::to_string(t * 1000 + i), DebugLog::Source::viewer);
        });
    }
    for (auto& thread : threads) thread.join();
    time.settle();
    std::vector<std::string> listed;
    for (const auto& entry : log.entries()) listed.push_back(entry.text);
    EXPECT_EQ(seen, listed);
    EXPECT_EQ(listed.size(), 800u);
}

}  // namespace
}  // namespace velmora
