#include "Host/InputInjector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Testing/DiaryReader.h"
#include "Testing/FakeDisplays.h"
#include "Testing/FakeEventPoster.h"
#include "Testing/FakeKeyboardLayout.h"
#include "Testing/VirtualQueue.h"

namespace velmora {

void PrintTo(const PostedEvent& event, std::ostream* out) {
    *out << "{kind " << static_cast<int>(event.kind) << " at " << event.x << "," << event.y << " button "
         << event.button << " clicks " << event.clickCount << " scroll " << event.scrollX << ","
         << event.scrollY << " key " << event.keyCode << " flags " << std::hex << event.flags << std::dec
         << " text " << event.text.size() << " for character " << event.forCharacter << event.optionIsLevel
         << "}";
}

namespace {

using Kind = PostedEvent::Kind;
using Wire = InputEvent::Kind;
using namespace EventFlags;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr DisplayId mainId = 5, secondId = 9;

class InputInjectorTest : public testing::Test {
protected:
    InputInjectorTest() {
        displays.set({{.id = mainId, .name = "A", .bounds = {0, 0, 1000, 500}},
                      {.id = secondId, .name = "B", .bounds = {1000, 100, 800, 600}}});
        layout.set("Test", {{0, {}, "a"},
                            {0, {.shift = true}, "A"},
                            {18, {}, "1"},
                            {18, {.shift = true}, "!"},
                            {12, {.option = true}, "@"},
                            {13, {.shift = true, .option = true}, "\xC5\x92"}});
        make({});
    }
    void make(InputInjector::Options options) {
        injector.reset();
        injector = std::make_unique<InputInjector>(std::make_unique<FakeEventPoster>(log), layout, displays,
                                                   queue, options);
    }
    void handle(const InputEvent& event) {
        queue.runSync([&] { injector->handle(event); });
    }
    std::vector<PostedEvent> posted(const InputEvent& event) {
        log->events.clear();
        handle(event);
        return log->take();
    }
    PostedEvent one(const InputEvent& event) {
        const auto events = posted(event);
        EXPECT_EQ(events.size(), 1u);
        return events.empty() ? PostedEvent{} : events.front();
    }
    void releaseAll() {
        queue.runSync([&] { injector->releaseAll(); });
    }
    static InputEvent mouse(Wire kind, double x, double y, std::int64_t button = 0, std::int64_t clicks = 1) {
        return {.kind = kind, .x = x, .y = y, .button = button, .clickCount = clicks};
    }
    static InputEvent key(bool down, std::uint16_t code, std::optional<std::string> characters = {},
                          std::uint64_t flags = 0) {
        return {.kind = Wire::key,
                .keyCode = code,
                .characters = std::move(characters),
                .down = down,
                .flags = flags};
    }

    VirtualTime time;
    VirtualQueue queue{time};
    FakeDisplays displays;
    FakeKeyboardLayout layout;
    std::shared_ptr<PostedLog> log = std::make_shared<PostedLog>();
    std::unique_ptr<InputInjector> injector;
};

TEST_F(InputInjectorTest, pointsAreFractionsOfTheDisplayAndNotClamped) {
    const auto at = [&](double x, double y) {
        const PostedEvent event = one(mouse(Wire::mouseMove, x, y));
        EXPECT_EQ(event.kind, Kind::mouseMove);
        return std::pair(event.x, event.y);
    };
    EXPECT_EQ(at(0.25, 0.5), std::pair(250.0, 250.0));
    EXPECT_EQ(at(-0.1, 1.5), std::pair(-100.0, 750.0));
    queue.runSync([&] { injector->setDisplay(secondId); });
    EXPECT_EQ(at(0.5, 0.5), std::pair(1400.0, 400.0));
    displays.set({{.id = secondId, .bounds = {0, 0, 400, 300}}});
    time.advanceBy(std::chrono::milliseconds(250));
    EXPECT_EQ(at(0.5, 0.5), std::pair(200.0, 150.0));
    displays.set({{.id = secondId, .bounds = {0, 0, 40, 30}}});
    queue.runSync([&] { injector->setDisplay(secondId); });
    EXPECT_EQ(at(0.5, 0.5), std::pair(20.0, 15.0));
}

TEST_F(InputInjectorTest, aPointThatLeadsNowhereMovesNothingButLetsButtonsGo) {
    constexpr double huge = std::numeric_limits<double>::max();
    handle(mouse(Wire::mouseDown, 0.5, 0.5));
    EXPECT_THAT(posted(mouse(Wire::mouseMove, huge, 0.5)), IsEmpty());
    EXPECT_THAT(posted(mouse(Wire::mouseMove, 0.5, std::nan(""))), IsEmpty());
    EXPECT_THAT(posted(mouse(Wire::mouseDown, huge, huge, 1)), IsEmpty());
    displays.fail({"the screen is gone"});
    time.advanceBy(std::chrono::seconds(1));
    EXPECT_THAT(posted(mouse(Wire::mouseMove, 0.1, 0.1)), IsEmpty());
    const PostedEvent up = one(mouse(Wire::mouseUp, 0.1, 0.1));
    EXPECT_EQ(up, (PostedEvent{.kind = Kind::mouseUp, .x = 500, .y = 250}));
}

TEST_F(InputInjectorTest, buttonsAndClickCountsAreThoseTheViewerCounted) {
    struct Case {
        std::int64_t button, clicks;
        int postedButton, postedClicks;
    };
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    for (const Case& c : {Case{0, 1, 0, 1}, Case{1, 2, 1, 2}, Case{2, 3, 2, 3}, Case{7, 0, 2, 1},
                          Case{-1, -5, 2, 1}, Case{most, most, 2, std::numeric_limits<int>::max()}}) {
        for (const Wire kind : {Wire::mouseDown, Wire::mouseUp}) {
            EXPECT_EQ(one(mouse(kind, 0.1, 0.2, c.button, c.clicks)),
                      (PostedEvent{.kind = kind == Wire::mouseDown ? Kind::mouseDown : Kind::mouseUp,
                                   .x = 100,
                                   .y = 100,
                                   .button = c.postedButton,
                                   .clickCount = c.postedClicks}));
        }
    }
}

TEST_F(InputInjectorTest, aMoveWithAButtonDownIsADragOfTheFirstOfThem) {
    const auto drag = [&] {
        const PostedEvent event = one(mouse(Wire::mouseMove, 0.3, 0.3));
        return event.kind == Kind::mouseDrag ? event.button : -1;
    };
    handle(mouse(Wire::mouseDown, 0, 0, 7));
    EXPECT_EQ(drag(), -1);
    handle(mouse(Wire::mouseDown, 0, 0, 2));
    EXPECT_EQ(drag(), 2);
    handle(mouse(Wire::mouseDown, 0, 0, 1));
    EXPECT_EQ(drag(), 1);
    handle(mouse(Wire::mouseDown, 0, 0, 0));
    EXPECT_EQ(drag(), 0);
    handle(mouse(Wire::mouseUp, 0, 0, 0));
    EXPECT_EQ(drag(), 1);
}

TEST_F(InputInjectorTest, releaseAllLiftsEachButtonOnceWhereThePointerWasLast) {
    handle(mouse(Wire::mouseDown, 0, 0, 0));
    handle(mouse(Wire::mouseDown, 0, 0, 1));
    handle(mouse(Wire::mouseMove, 0.5, 0.5));
    log->events.clear();
    releaseAll();
    EXPECT_THAT(log->take(),
                ElementsAre(PostedEvent{.kind = Kind::mouseUp, .x = 500, .y = 250, .button = 0},
                            PostedEvent{.kind = Kind::mouseUp, .x = 500, .y = 250, .button = 1}));
    releaseAll();
    EXPECT_THAT(log->take(), IsEmpty());
    EXPECT_EQ(one(mouse(Wire::mouseMove, 0, 0)).kind, Kind::mouseMove);
}

TEST_F(InputInjectorTest, scrollingIsRoundedToPixelsWhateverItsSize) {
    const auto scrolled = [&](double dx, double dy) {
        const PostedEvent event =
            one({.kind = Wire::scroll, .x = 0.5, .y = 0.5, .dx = dx, .dy = dy, .flags = shift});
        EXPECT_EQ(event.kind, Kind::scroll);
        EXPECT_EQ(event.flags, shift);
        return std::pair(event.scrollX, event.scrollY);
    };
    EXPECT_EQ(scrolled(1.5, -1.5), std::pair(2, -2));
    EXPECT_EQ(scrolled(0.4, 10), std::pair(0, 10));
    EXPECT_EQ(scrolled(1e300, -1e300), std::pair(2147483647, -2147483647));
    EXPECT_EQ(scrolled(std::nan(""), std::numeric_limits<double>::infinity()), std::pair(0, 2147483647));
}

TEST_F(InputInjectorTest, aKeyWithoutTypeableCharactersGoesByItsCode) {
    for (const std::optional<std::string>& characters :
         {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("\r"),
          std::optional<std::string>("a\x1b"), std::optional<std::string>("\x7f"),
          std::optional<std::string>("\xEF\x9C\x80"), std::optional<std::string>("\xEF\xA3\xBF")}) {
        EXPECT_EQ(one(key(true, 123, characters, shift | option)),
                  (PostedEvent{.kind = Kind::keyDown, .keyCode = 123, .flags = shift | option}));
        EXPECT_EQ(one(key(false, 123, characters, option)),
                  (PostedEvent{.kind = Kind::keyUp, .keyCode = 123, .flags = option}));
    }
}

TEST_F(InputInjectorTest, aCharacterOfTheLayoutIsTypedWithTheKeysAndModifiersItNeedsHere) {
    struct Case {
        std::string characters;
        std::uint64_t flags;
        std::uint16_t keyCode;
        std::uint64_t posted;
        bool optionIsLevel = false;
    };
    const Case cases[] = {
        {"a", 0, 0, 0},
        {"a", shift | option | capsLock, 0, capsLock},
        {"A", 0, 0, shift},
        {"!", 0, 18, shift},
        {"@", shift, 12, option, true},
        {"\xC5\x92", 0, 13, shift | option, true},
        {"a", option | command, 0, option | command},
        {"a", option | control, 0, option | control},
        {"a", command | shift, 0, command},
        {"@", control | option, 12, control | option, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(one(key(true, 77, c.characters, c.flags)), (PostedEvent{.kind = Kind::keyDown,
                                                                          .keyCode = c.keyCode,
                                                                          .flags = c.posted,
                                                                          .forCharacter = true,
                                                                          .optionIsLevel = c.optionIsLevel}))
            << c.characters << " with " << std::hex << c.flags;
        EXPECT_EQ(one(key(false, 77, c.characters, c.flags)),
                  (PostedEvent{.kind = Kind::keyUp, .keyCode = c.keyCode, .flags = c.flags}));
    }
}

TEST_F(InputInjectorTest, anAgentsShiftStands) {
    make({.agent = true});
    EXPECT_EQ(one(key(true, 18, "1", shift)).flags, shift);
    EXPECT_EQ(one(key(true, 0, "a", shift | command)).flags, shift | command);
    EXPECT_EQ(one(key(true, 0, "a")).flags, 0u);
}

TEST_F(InputInjectorTest, aKeyGoesUpWhereItWentDownThoughTheLayoutChanged) {
    EXPECT_EQ(one(key(true, 50, "a")).keyCode, 0);
    layout.set("Other", {{33, {}, "a"}});
    time.advanceBy(std::chrono::seconds(2));
    EXPECT_EQ(one(key(true, 51, "a")).keyCode, 33);
    EXPECT_EQ(one(key(false, 50, "a")).keyCode, 0);
    EXPECT_EQ(one(key(false, 50, "a")).keyCode, 50);
    EXPECT_EQ(one(key(false, 51, "a")).keyCode, 33);
}

TEST_F(InputInjectorTest, whatTheLayoutLacksIsTypedAsText) {
    EXPECT_EQ(one(key(true, 14, "\xF0\x9F\x98\x80\xC3\xA9", shift)),
              (PostedEvent{.kind = Kind::text, .text = u"\U0001F600\u00E9"}));
    EXPECT_EQ(one(key(false, 14, "\xF0\x9F\x98\x80\xC3\xA9", shift)),
              (PostedEvent{.kind = Kind::keyUp, .keyCode = 14, .flags = shift}));
    EXPECT_EQ(one(key(true, 14, "a\xFF\xC3")),
              (PostedEvent{.kind = Kind::text, .text = u"a\uFFFD\uFFFD"}));  // never out of bounds
}

TEST_F(InputInjectorTest, aTextThatNoKeyStandsForIsCutAndNotRepeatedInTheLog) {
    DiaryReader diary;
    std::string text;
    for (int i = 0; i < 100'000; ++i) text += "日";
    EXPECT_EQ(one(key(true, 0, text)).text.size(), 1000u);
    ASSERT_THAT(diary.hostLines(), Contains(HasSubstr("100000 characters")));
    for (const std::string& line : diary.hostLines()) EXPECT_EQ(line.find("日"), std::string::npos);
}

}  // namespace
}  // namespace velmora
