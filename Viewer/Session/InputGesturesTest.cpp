#include "Viewer/Session/InputGestures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velmora {
namespace {

using Kind = InputEvent::Kind;
using testing::ElementsAre;

TEST(InputGesturesTest, pixelsBecomeFractionsWithinTheStream) {
    const auto middle = InputGestures::pointAt(784, 490, 1568, 980);
    EXPECT_EQ(middle.x, 0.5);
    EXPECT_EQ(middle.y, 0.5);
    EXPECT_EQ(InputGestures::pointAt(-3, 2000, 100, 100).x, 0);
    EXPECT_EQ(InputGestures::pointAt(-3, 2000, 100, 100).y, 1);
    EXPECT_EQ(InputGestures::pointAt(5, 5, 0, 0).x, 0);
}

TEST(InputGesturesTest, aDoubleClickCountsItsClicks) {
    std::vector<std::pair<Kind, std::int64_t>> seen;
    for (const auto& event : InputGestures::click({0.5, 0.25}, InputGestures::Button::right, 2)) {
        EXPECT_EQ(event.y, 0.25);
        seen.emplace_back(event.kind, event.clickCount);
    }
    EXPECT_THAT(seen, ElementsAre(std::pair(Kind::mouseMove, 1), std::pair(Kind::mouseDown, 1),
                                  std::pair(Kind::mouseUp, 1), std::pair(Kind::mouseDown, 2),
                                  std::pair(Kind::mouseUp, 2)));
    EXPECT_EQ(InputGestures::click({}, InputGestures::Button::right, 0).size(), 3u);
    EXPECT_EQ(InputGestures::click({}, InputGestures::Button::right, 1)[1].button, 1);
}

TEST(InputGesturesTest, aDragEndsWhereItShould) {
    const auto events = InputGestures::drag({0, 0}, {1, 0.5});
    ASSERT_EQ(events.size(), 15u);
    EXPECT_EQ(events[1].kind, Kind::mouseDown);
    EXPECT_EQ(events[7].kind, Kind::mouseMove);
    EXPECT_DOUBLE_EQ(events[7].x, 0.5);
    EXPECT_EQ(events[13].x, 1);
    EXPECT_EQ(events[14].kind, Kind::mouseUp);
    EXPECT_EQ(events[14].y, 0.5);
}

TEST(InputGesturesTest, textIsTypedCharacterByCharacter) {
    const auto events = InputGestures::type("ü\n\t\r");
    ASSERT_EQ(events.size(), 8u);
    EXPECT_EQ(events[0].characters, "ü");
    EXPECT_EQ(events[0].keyCode, 0);
    EXPECT_TRUE(events[0].down);
    EXPECT_FALSE(events[1].down);
    EXPECT_EQ(events[2].keyCode, 36);
    EXPECT_EQ(events[2].characters, std::nullopt);
    EXPECT_EQ(events[4].keyCode, 48);
    EXPECT_EQ(events[6].characters, "\r");  // alone it is a text, not the key
}

}  // namespace
}  // namespace velmora
