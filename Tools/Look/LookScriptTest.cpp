#include "Tools/Look/LookScript.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

std::vector<InputEvent> eventsOf(std::string_view line) {
    const auto step = LookStep::parse(line);
    if (!step || !*step) return {};
    const auto* input = std::get_if<LookStep::Input>(&(*step)->what);
    return input ? input->events({200, 100}) : std::vector<InputEvent>{};
}
template <class What>
What parsed(std::string_view line) {
    const auto step = LookStep::parse(line);
    EXPECT_TRUE(step && *step) << line;
    return std::get<What>((*step)->what);
}

TEST(LookScriptTest, gesturesAreInPixelsOfTheStream) {
    EXPECT_EQ(eventsOf("move 50 25")[0].x, 0.25);
    EXPECT_EQ(eventsOf("  click\t100 50 ")[1].y, 0.5);
    EXPECT_EQ(eventsOf("click 100 50 right 2")[4].button, 1);
    EXPECT_EQ(eventsOf("click 100 50 right 2")[4].clickCount, 2);
    EXPECT_EQ(eventsOf("drag 0 0 200 100").back().x, 1);
    EXPECT_EQ(eventsOf("scroll 10 10 0 -120.5")[1].dy, -120.5);
    EXPECT_EQ(eventsOf("key cmd+c")[0].keyCode, 8);
    EXPECT_EQ(eventsOf("type a b\\n\\\\ ").size(), 10u);  // a, blank, b, Return, a backslash
}

TEST(LookScriptTest, waitsHaveLimits) {
    EXPECT_EQ(parsed<LookStep::Wait>("wait 0.5").span.count(), 0.5);
    EXPECT_EQ(parsed<LookStep::Settle>("settle").limit.count(), 10);
    EXPECT_EQ(parsed<LookStep::Settle>("settle 3").limit.count(), 3);
    EXPECT_EQ(parsed<LookStep::Change>("change 2").limit.count(), 2);
    EXPECT_EQ(parsed<LookStep::SavePng>("png out/my picture.png").file, "out/my picture.png");
    EXPECT_EQ(parsed<LookStep::RecordStats>("stats-csv a.csv").file, "a.csv");
}

TEST(LookScriptTest, emptyLinesAndCommentsAreNoSteps) {
    for (const char* line : {"", "   ", "# click 1 2", "\r"}) {
        const auto step = LookStep::parse(line);
        ASSERT_TRUE(step) << line;
        EXPECT_FALSE(*step) << line;
    }
}

TEST(LookScriptTest, whatMakesNoSenseIsAFailure) {
    for (const char* line : {"move 1",     "move 1 x",    "move 1 2 3", "click 1 2 back", "click 1 2 left 0",
                             "drag 1 2 3", "key hyper+x", "key",        "type",           "type a\\q",
                             "type a\\",   "wait",        "wait -1",    "wait 1 2",       "settle x",
                             "png",        "stats-csv",   "jump 1 2",   "wait nan",       "move 1,5 2"}) {
        EXPECT_FALSE(LookStep::parse(line)) << line;
    }
}

}  // namespace
}  // namespace velmora
