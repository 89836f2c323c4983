#include "Platform/Linux/Input/X11EventPoster.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "Platform/Linux/Input/X11KeyboardLayout.h"
#include "Platform/Linux/Input/XkbHeader.h"
#include "Testing/DiaryReader.h"
#include "Testing/XInputWindow.h"
#include "Testing/XServerFixture.h"
#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {
namespace {

using Kind = PostedEvent::Kind;
using Event = XInputWindow::Event;
using namespace EventFlags;
using testing::ElementsAre;

constexpr std::uint16_t macA = 0x00, macC = 0x08, macTab = 0x30, macSpace = 0x31, macCapsLock = 0x39,
                        macKeypad7 = 0x59;
constexpr std::uint8_t xA = 38, xC = 54, xTab = 23;
constexpr int capsOn = XCB_MOD_MASK_LOCK, numOn = XCB_MOD_MASK_2;

class X11EventPosterTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.ok()) << server.error(); }
    std::unique_ptr<EventPoster> make(EventPosterFactory::Options options = {}) {
        return makeX11EventPosterFactory(server.display())->make(options);
    }
    static void tap(EventPoster& poster, std::uint16_t key, std::uint64_t flags = 0) {
        poster.post({.kind = Kind::keyDown, .keyCode = key, .flags = flags});
        poster.post({.kind = Kind::keyUp, .keyCode = key, .flags = flags});
    }
    /// The first press of the key since the last call.
    static std::optional<Event> pressOf(XInputWindow& window, std::uint8_t code) {
        const auto isIt = [&](const Event& event) {
            return event.kind == Event::Kind::keyDown && event.detail == code;
        };
        if (!window.waitUntil([&](const auto& events) { return std::ranges::any_of(events, isIt); }))
            return {};
        const auto events = window.take();
        return *std::ranges::find_if(events, isIt);
    }
    bool setLayout(const std::string& layouts) {
        auto program = server.run({"setxkbmap", "-layout", layouts});
        return program && (*program)->waitForExit(std::chrono::seconds(10)) == 0;
    }
    static int locks(XInputWindow& window) {
        const auto cookie = xcb_xkb_get_state(window.connection(), XCB_XKB_ID_USE_CORE_KBD);
        const std::unique_ptr<xcb_xkb_get_state_reply_t, void (*)(void*)> state(
            xcb_xkb_get_state_reply(window.connection(), cookie, nullptr), std::free);
        return state ? state->lockedMods : -1;
    }
    static void useXkb(XInputWindow& window) {
        const auto cookie = xcb_xkb_use_extension(window.connection(), 1, 0);
        std::free(xcb_xkb_use_extension_reply(window.connection(), cookie, nullptr));
    }
    static std::vector<int> lentCodes(XInputWindow& window) {
        constexpr std::uint32_t firstUnicode = 0x1000100, lastUnicode = 0x110FFFF;
        std::vector<int> codes;
        for (int code = 8; code < 256; ++code) {
            const auto symbols = window.symbolsOf(static_cast<std::uint8_t>(code));
            if (!symbols.empty() && symbols[0] > firstUnicode && symbols[0] <= lastUnicode)
                codes.push_back(code);
        }
        return codes;
    }

    XServerFixture server{{.size = {800, 600}}};
};

TEST_F(X11EventPosterTest, scrolledPixelsBecomeClicksWithTheirModifiers) {
    XInputWindow window(server.display());
    const auto poster = make();
    for (int i = 0; i < 10; ++i) poster->post({.kind = Kind::scroll, .scrollY = -16});      // 160 down
    poster->post({.kind = Kind::scroll, .scrollX = 60, .scrollY = 110, .flags = control});  // 2 up, 1 left
    poster->post({.kind = Kind::scroll, .scrollX = -60});
    poster->post({.kind = Kind::mouseMove, .x = 9, .y = 9});
    ASSERT_TRUE(window.waitUntil([](const auto& events) { return !events.empty() && events.back().x == 9; }));
    std::vector<std::pair<int, bool>> clicks;
    for (const Event& event : window.take()) {
        if (event.kind != Event::Kind::buttonDown) continue;
        clicks.emplace_back(event.detail, (event.state & XCB_MOD_MASK_CONTROL) != 0);
    }
    EXPECT_THAT(clicks,
                ElementsAre(std::pair(5, false), std::pair(5, false), std::pair(5, false), std::pair(4, true),
                            std::pair(4, true), std::pair(6, true), std::pair(7, false)));
    EXPECT_FALSE(window.isAnythingDown());
}

TEST_F(X11EventPosterTest, clicksOfADoubleClickFallOnOnePoint) {
    XInputWindow window(server.display());
    const auto poster = make();
    for (const int count : {1, 2}) {
        poster->post({.kind = Kind::mouseDown, .x = 50.7, .y = 60, .button = 0, .clickCount = count});
        poster->post({.kind = Kind::mouseUp, .x = 50.7, .y = 60, .button = 0, .clickCount = count});
    }
    const auto isClick = [](const Event& event) { return event.kind != Event::Kind::motion; };
    ASSERT_TRUE(
        window.waitUntil([&](const auto& events) { return std::ranges::count_if(events, isClick) == 4; }));
    for (const Event& event : window.take()) EXPECT_EQ(std::pair(event.x, event.y), std::pair(50, 60));
}

TEST_F(X11EventPosterTest, anAgentsDragIsNoFasterThanAHand) {
    XInputWindow window(server.display());
    const auto poster = make({.agent = true});
    poster->post({.kind = Kind::mouseDown, .x = 50, .y = 60});
    for (const double x : {60, 70, 80}) poster->post({.kind = Kind::mouseDrag, .x = x, .y = 60});
    poster->post({.kind = Kind::mouseUp, .x = 80, .y = 60});
    const auto isUp = [](const Event& event) { return event.kind == Event::Kind::buttonUp; };
    ASSERT_TRUE(window.waitUntil([&](const auto& events) { return std::ranges::any_of(events, isUp); }));
    const auto events = window.take();
    const auto pressed = std::ranges::find(events, Event::Kind::buttonDown, &Event::kind);
    ASSERT_NE(pressed, events.end());
    EXPECT_EQ(events.back().x, 80);
    EXPECT_GE(events.back().time - pressed->time, 60u);
}

TEST_F(X11EventPosterTest, anAgentsCommandIsControlAndSparesTerminals) {
    {
        XInputWindow window(server.display(), "Editor");
        const auto poster = make({.agent = true});
        tap(*poster, macC, command);
        EXPECT_EQ(pressOf(window, xC)->state, XCB_MOD_MASK_CONTROL);
        tap(*poster, macTab, command | shift);
        EXPECT_EQ(pressOf(window, xTab)->state, XCB_MOD_MASK_1 | XCB_MOD_MASK_SHIFT);
        tap(*poster, macSpace, command);
        tap(*poster, macA, command);
        ASSERT_TRUE(window.waitUntil([](const auto& events) { return events.size() >= 4; }));
        const auto events = window.take();
        EXPECT_TRUE(std::ranges::none_of(events, [](const Event& e) { return e.detail == 65; }));
    }
    XInputWindow terminal(server.display(), "XTerm");
    const auto poster = make({.agent = true});
    tap(*poster, macC, command);
    EXPECT_EQ(pressOf(terminal, xC)->state, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_SHIFT);
    tap(*poster, macA, command);
    EXPECT_EQ(pressOf(terminal, xA)->state, XCB_MOD_MASK_CONTROL);
    EXPECT_FALSE(terminal.isAnythingDown());
}

TEST_F(X11EventPosterTest, capsLockIsAStateThatIsPutBackInTheEnd) {
    XInputWindow window(server.display());
    useXkb(window);
    auto poster = make();
    poster->post({.kind = Kind::keyDown, .keyCode = macCapsLock, .flags = capsLock});
    poster->post({.kind = Kind::keyDown, .keyCode = macCapsLock, .flags = capsLock});
    tap(*poster, macA, capsLock);
    EXPECT_EQ(pressOf(window, xA)->state, capsOn);
    EXPECT_EQ(locks(window), capsOn);
    tap(*poster, macA);  // the flags say that it is off
    EXPECT_EQ(pressOf(window, xA)->state, 0);
    tap(*poster, macKeypad7, capsLock);  // a Mac's keypad always has digits
    EXPECT_EQ(pressOf(window, 79)->state, capsOn | numOn);
    poster.reset();
    EXPECT_EQ(locks(window), 0);
}

TEST_F(X11EventPosterTest, aThirdLevelTakesAltGrAndAShortcutTakesAlt) {
    ASSERT_TRUE(setLayout("de"));
    XInputWindow window(server.display());
    const auto poster = make();
    poster->post({.kind = Kind::keyDown,
                  .keyCode = 0x0C,
                  .flags = option,
                  .forCharacter = true,
                  .optionIsLevel = true});
    EXPECT_EQ(pressOf(window, 24)->state, XCB_MOD_MASK_5);
    poster->post({.kind = Kind::keyUp, .keyCode = 0x0C});
    tap(*poster, 0x0C, option);
    EXPECT_EQ(pressOf(window, 24)->state, XCB_MOD_MASK_1);
    EXPECT_FALSE(window.isAnythingDown());
}

TEST_F(X11EventPosterTest, theKeyboardMapIsGivenBackAndLayoutChangesAreSurvived) {
    XInputWindow window(server.display());
    auto poster = make();
    poster->post({.kind = Kind::text, .text = u"\u4F60\u597D"});
    EXPECT_TRUE(window.waitUntil([&](const auto&) { return lentCodes(window).size() == 2; }));
    ASSERT_TRUE(setLayout("de"));  // wipes what was lent
    poster->post({.kind = Kind::text, .text = u"\u4F60z"});
    EXPECT_TRUE(pressOf(window, 29));  // z by the new layout
    EXPECT_EQ(lentCodes(window).size(), 1u);
    poster.reset();
    EXPECT_THAT(lentCodes(window), testing::IsEmpty());
}

TEST_F(X11EventPosterTest, lentKeysTypeInEveryGroupOfTheLayout) {
    ASSERT_TRUE(setLayout("de,us"));
    XInputWindow window(server.display());
    useXkb(window);
    xcb_xkb_latch_lock_state(window.connection(), XCB_XKB_ID_USE_CORE_KBD, 0, 0, 1, 1, 0, 0, 0);
    window.events();
    const auto poster = make();
    poster->post({.kind = Kind::text, .text = u"\u4F60z"});
    EXPECT_TRUE(pressOf(window, 52));  // z where the second group has it
    const auto codes = lentCodes(window);
    ASSERT_EQ(codes.size(), 1u);
    const auto connection = XConnection::open(server.display());
    ASSERT_TRUE(connection);
    XKeymap keymap(**connection, [](XKeymap::Code) { return false; });
    ASSERT_TRUE(keymap.refresh());
    EXPECT_EQ(keymap.group(), 1u);
    EXPECT_EQ(keymap.symbolOf({.code = static_cast<XKeymap::Code>(codes[0])}), 0x1004F60u);
}

TEST_F(X11EventPosterTest, whatACrashLeftOnTheKeyboardIsClearedAtTheNextStart) {
    XInputWindow window(server.display());
    const pid_t child = fork();
    if (child == 0) {
        XInputWindow ours(server.display());
        auto* poster = make().release();
        poster->post({.kind = Kind::text, .text = u"\u4F60"});
        _exit(ours.waitUntil([&](const auto&) { return lentCodes(ours).size() == 1; }) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(lentCodes(window).size(), 1u);
    const ScopedDisplay here(server.display());
    // The server may take a while to notice that the child has gone: until then its keys are in use.
    EXPECT_TRUE(window.waitUntil([&](const auto&) {
        const auto factory = makeEventPosterFactory();
        return lentCodes(window).empty();
    }));
}

TEST_F(X11EventPosterTest, theEndOfTheServerIsOneLineInTheDiary) {
    const auto poster = make();
    const auto spare = make();
    spare->post({.kind = Kind::text, .text = u"\u4F60"});
    DiaryReader diary;
    server.kill();
    for (int i = 0; i < 20; ++i) {
        poster->post({.kind = Kind::text, .text = u"a\u4F60"});
        tap(*poster, macA, shift);
    }
    EXPECT_THAT(diary.hostLines(), ElementsAre("⚠︎ The X server is gone: no more input is posted"));
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(diary.hostLines().back(), testing::StartsWith("⚠︎ No input can be posted: "));
}

TEST_F(X11EventPosterTest, aWaylandSessionGetsNoPoster) {
    const ScopedDisplay here(server.display());
    DiaryReader diary;
    setenv("XDG_SESSION_TYPE", "wayland", 1);
    EXPECT_EQ(makeEventPosterFactory()->make({}), nullptr);
    unsetenv("XDG_SESSION_TYPE");
    EXPECT_EQ(diary.hostLines().size(), 1u);
    EXPECT_NE(makeEventPosterFactory()->make({}), nullptr);
}

TEST_F(X11EventPosterTest, theLayoutSaysWhatItsKeysGiveAndWhenItChanges) {
    X11KeyboardLayout layout(server.display());
    EXPECT_EQ(layout.currentId(), "English (US)");
    EXPECT_TRUE(layout.hasCharacters());
    EXPECT_EQ(layout.charactersFor(0x00, {}), "a");
    EXPECT_EQ(layout.charactersFor(0x10, {.shift = true}), "Y");
    EXPECT_EQ(layout.charactersFor(0x0C, {.option = true}), "");
    EXPECT_EQ(layout.charactersFor(0x24, {}), "");
    EXPECT_EQ(layout.charactersFor(0xFFFF, {}), "");

    ASSERT_TRUE(setLayout("de,us"));
    EXPECT_EQ(layout.currentId(), "German");
    EXPECT_EQ(layout.charactersFor(0x10, {}), "z");
    EXPECT_EQ(layout.charactersFor(0x0C, {.option = true}), "@");
    EXPECT_EQ(layout.charactersFor(0x0A, {}), "<");
    EXPECT_EQ(layout.charactersFor(0x32, {}), "^");  // dead
    EXPECT_EQ(layout.charactersFor(0x18, {}), "\u00B4");

    XInputWindow window(server.display());
    useXkb(window);
    xcb_xkb_latch_lock_state(window.connection(), XCB_XKB_ID_USE_CORE_KBD, 0, 0, 1, 1, 0, 0, 0);
    window.events();
    EXPECT_EQ(layout.currentId(), "English (US)");
    EXPECT_EQ(layout.charactersFor(0x10, {}), "y");

    const std::uint32_t swapped[] = {'q', 'Q', 'q', 'Q'};  // another map of the same name
    xcb_change_keyboard_mapping(window.connection(), 1, xA, 4, swapped);
    window.events();
    EXPECT_EQ(layout.currentId(), "English (US) (2)");
    EXPECT_EQ(layout.charactersFor(macA, {}), "q");

    server.kill();
    EXPECT_EQ(layout.currentId(), std::nullopt);
}

TEST(X11KeyboardLayoutTest, itFollowsTheSessionToAnotherXServer) {
    X11KeyboardLayout layout;
    auto first = std::make_unique<XServerFixture>(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(first->ok()) << first->error();
    std::optional<std::string> name;
    {
        ScopedDisplay here(first->display());
        name = layout.currentId();
        ASSERT_TRUE(name);
        first->kill();
        EXPECT_FALSE(layout.currentId());
    }
    XServerFixture second(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(second.ok()) << second.error();
    ScopedDisplay here(second.display());
    EXPECT_EQ(layout.currentId(), name);
    EXPECT_EQ(layout.charactersFor(0, {}), "a");
}

}  // namespace
}  // namespace velmora
