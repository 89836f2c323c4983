#include "Viewer/Window/ViewerInput.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Platform/EventPoster.h"

namespace velmora {
namespace {

using namespace EventFlags;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t aKey = 0, leftShift = 56, rightShift = 60, capsLockKey = 57;

class ViewerInputTest : public testing::Test {
protected:
    ViewerInputTest() {
        input.onInput = [this](const InputEvent& event) { sent.push_back(event); };
    }
    /// What was sent since the last call, in short words.
    std::vector<std::string> words() {
        std::vector<std::string> all;
        for (const InputEvent& e : std::exchange(sent, {})) {
            switch (e.kind) {
                case InputEvent::Kind::mouseMove:
                    all.push_back(fmt::format("move {},{}", e.x, e.y));
                    break;
                case InputEvent::Kind::mouseDown:
                case InputEvent::Kind::mouseUp:
                    all.push_back(fmt::format("{} {} x{}",
                                              e.kind == InputEvent::Kind::mouseDown ? "press" : "let go",
                                              e.button, e.clickCount));
                    break;
                case InputEvent::Kind::scroll:
                    all.push_back(fmt::format("scroll {},{}", e.dx, e.dy));
                    break;
                case InputEvent::Kind::key:
                    all.push_back(fmt::format("{} {}{} {:x}", e.down ? "down" : "up", e.keyCode,
                                              e.characters ? "'" + *e.characters : "", e.flags >> 16));
                    break;
            }
        }
        return all;
    }
    ViewerInput input;
    std::vector<InputEvent> sent;
};

TEST_F(ViewerInputTest, scrolledFractionsWaitForTheNextEvent) {
    struct Case {
        double dx, dy;
        std::vector<std::string> sent;
    };
    for (const Case& c :
         {Case{0, 0.4, {}}, Case{0, 0.7, {"scroll 0,1"}}, Case{0, 0.9, {"scroll 0,1"}},
          Case{-53, 10, {"scroll -53,10"}}, Case{0, -1.5, {"scroll 0,-1"}}, Case{std::nan(""), 5, {}}}) {
        input.scroll(c.dx, c.dy, 0);
        EXPECT_EQ(words(), c.sent) << c.dx << "," << c.dy;
    }
}

TEST_F(ViewerInputTest, whatWentDownComesUpOnceAndNothingElseDoes) {
    input.releaseKey(aKey, 0);
    input.releaseButton(0, {}, 1, 0);
    EXPECT_THAT(words(), IsEmpty());
    input.pressKey(aKey, "a", 0);
    input.pressKey(aKey, "a", 0);  // it repeats
    input.pressButton(1, {0.5, 0.5}, 2, 0);
    EXPECT_TRUE(input.holdsKey(aKey));
    input.releaseKeys();
    input.keepButtons({0, 2}, {0.5, 0.5}, 0);
    input.releaseKey(aKey, 0);
    input.releaseButton(1, {}, 1, 0);
    EXPECT_THAT(words(), ElementsAre("down 0'a 0", "down 0'a 0", "press 1 x2", "up 0'a 0", "let go 1 x1"));
    EXPECT_FALSE(input.holdsAnything());
}

TEST_F(ViewerInputTest, modifiersSayWhatIsHeldAfterThem) {
    input.pressKey(leftShift, std::nullopt, 0);
    input.pressKey(rightShift, std::nullopt, shift);
    input.pressKey(aKey, "A", shift | control);
    input.releaseKey(rightShift, shift);
    input.releaseKey(leftShift, shift);
    EXPECT_THAT(words(), ElementsAre("down 56 2", "down 60 2", "down 0'A 6", "up 60 2", "up 56 0"));
}

TEST_F(ViewerInputTest, capsLockIsAStateThatTheHostIsTold) {
    input.pressKey(capsLockKey, std::nullopt, 0);
    input.releaseKey(capsLockKey, capsLock);
    input.pressKey(capsLockKey, std::nullopt, capsLock);
    input.releaseKey(capsLockKey, capsLock);
    EXPECT_THAT(words(), ElementsAre("down 57 1", "up 57 0"));
    // Pressed while the keys were not ours; left with it on, it must not stay on at the host.
    input.pressKey(aKey, "a", capsLock);
    input.releaseKey(aKey, capsLock);
    input.releaseKeys();
    EXPECT_THAT(words(), ElementsAre("down 57 1", "down 0'a 1", "up 0'a 1", "up 57 1"));
    input.pressKey(aKey, "a", capsLock);
    EXPECT_THAT(words(), ElementsAre("down 57 1", "down 0'a 1"));
}

TEST(ClickCounterTest, clicksThatBelongTogetherAreCounted) {
    struct Case {
        std::int64_t button, time;
        double x;
        int count;
    };
    ClickCounter clicks;
    for (const Case& c :
         {Case{0, 1000, 10, 1}, Case{0, 1300, 12, 2}, Case{0, 1600, 12, 3}, Case{0, 2001, 12, 1},
          Case{1, 2002, 12, 1}, Case{1, 2100, 30, 1}, Case{1, 2200, 30, 2}}) {
        EXPECT_EQ(clicks.press(c.button, c.x, 0, c.time, {}), c.count) << c.time;
    }
}

}  // namespace
}  // namespace velmora
