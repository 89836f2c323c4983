#include <gtest/gtest.h>

#include "Host/InputInjector.h"
#include "Testing/FakeDisplays.h"
#include "Testing/FakeEventPoster.h"
#include "Testing/FakeKeyboardLayout.h"
#include "Testing/FakeLauncher.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

constexpr std::uint16_t returnKey = 36, spaceKey = 49, backspaceKey = 51, escapeKey = 53;
constexpr PixelRect display{100, 0, 1000, 500};

class LauncherKeysTest : public testing::Test {
protected:
    LauncherKeysTest() {
        displays.set({{.id = 5, .name = "A", .bounds = display}});
        make({.agent = true});
    }
    void make(InputInjector::Options options) {
        queue.runSync([&] {
            injector = std::make_unique<InputInjector>(std::make_unique<FakeEventPoster>(log), layout,
                                                       displays, queue, options, &launcher);
        });
    }
    void handle(const InputEvent& event) {
        queue.runSync([&] { injector->handle(event); });
    }
    void press(std::uint16_t code, std::uint64_t flags = 0, std::optional<std::string> characters = {}) {
        for (const bool down : {true, false}) {
            handle({.kind = InputEvent::Kind::key,
                    .keyCode = code,
                    .characters = characters,
                    .down = down,
                    .flags = flags});
        }
    }
    void type(const std::string& text) {
        for (const char c : text) press(0, 0, std::string(1, c));
    }
    void openLauncher() { press(spaceKey, EventFlags::command); }

    VirtualTime time;
    VirtualQueue queue{time};
    FakeDisplays displays;
    FakeKeyboardLayout layout;
    FakeLauncher launcher;
    std::shared_ptr<PostedLog> log = std::make_shared<PostedLog>();
    std::unique_ptr<InputInjector> injector;
};

TEST_F(LauncherKeysTest, whatIsTypedGoesIntoTheFieldAloneAndReturnOpensIt) {
    openLauncher();
    EXPECT_EQ(launcher.shown, "");
    EXPECT_EQ(launcher.shownOn, display);
    type("Texx");
    press(0, 0, "é");
    press(backspaceKey);
    press(backspaceKey);
    type("t");
    press(spaceKey);
    press(0, EventFlags::shift, "e");
    press(8, EventFlags::command, "c");  // shortcuts mean nothing here, but are no one else's either
    EXPECT_EQ(launcher.shown, "Text E");
    press(returnKey);
    EXPECT_EQ(launcher.opened, std::vector<std::string>{"Text E"});
    EXPECT_FALSE(launcher.shown);
    EXPECT_TRUE(log->take().empty());
    press(escapeKey);
    EXPECT_EQ(log->take().size(), 2u) << "the keys are the desktop's again";
}

TEST_F(LauncherKeysTest, itClosesWithoutOpeningAnything) {
    const std::vector<std::function<void()>> ends{
        [&] { press(escapeKey); },
        [&] { handle({.kind = InputEvent::Kind::mouseDown}); },
        [&] { queue.runSync([&] { injector->releaseAll(); }); },
        [&] {
            for (int i = 0; i < 4; ++i) press(backspaceKey);
            press(returnKey);
        },
        [&] { queue.runSync([&] { injector.reset(); }); },
    };
    for (const auto& end : ends) {
        openLauncher();
        type("abc");
        ASSERT_EQ(launcher.shown, "abc");
        end();
        EXPECT_FALSE(launcher.shown);
    }
    EXPECT_TRUE(launcher.opened.empty());
}

TEST_F(LauncherKeysTest, aKeyHeldSinceBeforeComesUpAndOnesTextIsBounded) {
    handle({.kind = InputEvent::Kind::key, .keyCode = 12, .down = true});
    openLauncher();
    EXPECT_EQ(log->take().size(), 1u);
    handle({.kind = InputEvent::Kind::key, .keyCode = 12, .down = false});
    EXPECT_EQ(log->take().size(), 1u);
    for (int i = 0; i < 100; ++i) press(0, 0, std::string(100, 'x'));
    EXPECT_EQ(launcher.shown->size(), 4000u);
}

TEST_F(LauncherKeysTest, aPersonsViewerHasNone) {
    make({});
    openLauncher();
    EXPECT_FALSE(launcher.shown);
    EXPECT_EQ(log->take().size(), 2u);
}

}  // namespace
}  // namespace velmora
