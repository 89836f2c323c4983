#include <algorithm>

#include "Testing/XInputWindow.h"
#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

using Kind = XInputWindow::Event::Kind;
using Events = std::vector<XInputWindow::Event>;

constexpr std::uint8_t leftButton = 1, rightButton = 3, wheelUp = 4, wheelDown = 5;

/// A window on the host takes what a viewer's pointer does. The shared display is not at the origin, so that
/// a place in the picture and its place on the screen differ.
class RemotePointer : public EndToEndTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startServer(XServerFixture::Kind::xorgDummy));
        ASSERT_NO_FATAL_FAILURE(moveDisplayRight());
        window_ = std::make_unique<XInputWindow>(server().display());
        ASSERT_TRUE(window_->ok());
        host_ = startHost();
        viewer_ = watch();
        ASSERT_TRUE(viewer_) << host_->said();
        window_->take();
    }

    /// Everything that the window sees of a step, up to the `releases`th button that is let go.
    Events seenOf(const std::string& step, int releases) {
        if (!does(*viewer_, step)) return {};
        EXPECT_TRUE(window_->waitUntil([&](const Events& events) {
            return std::ranges::count(events, Kind::buttonUp, &XInputWindow::Event::kind) >= releases;
        }));
        return window_->take();
    }
    static Events buttonsOf(Events events) {
        std::erase_if(events, [](const auto& event) { return event.kind == Kind::motion; });
        return events;
    }
    void expectAt(const XInputWindow::Event& event, int x, int y) {
        EXPECT_NEAR(event.x, display().x + x, 1);
        EXPECT_NEAR(event.y, display().y + y, 1);
    }

    std::unique_ptr<XInputWindow> window_;
    std::unique_ptr<RunningProgram> host_, viewer_;
};

TEST_F(RemotePointer, clicksWhereTheViewerClicks) {
    for (const auto& [x, y] : {std::pair{1, 1}, {640, 401}, {1278, 798}}) {
        const auto events = buttonsOf(seenOf("click " + std::to_string(x) + " " + std::to_string(y), 1));
        ASSERT_EQ(events.size(), 2U);
        for (const auto& event : events) {
            EXPECT_EQ(event.detail, leftButton);
            expectAt(event, x, y);
        }
    }
    const auto right = buttonsOf(seenOf("click 300 200 right", 1));
    ASSERT_EQ(right.size(), 2U);
    EXPECT_EQ(right.front().detail, rightButton);

    const auto twice = buttonsOf(seenOf("click 300 200 left 2", 2));
    ASSERT_EQ(twice.size(), 4U);
    for (std::size_t i = 0; i < twice.size(); ++i) {
        EXPECT_EQ(twice[i].kind, i % 2 ? Kind::buttonUp : Kind::buttonDown);
        expectAt(twice[i], 300, 200);
    }
    EXPECT_FALSE(window_->isAnythingDown());
}

TEST_F(RemotePointer, dragsWithTheButtonHeld) {
    const auto events = seenOf("drag 100 100 700 500", 1);
    const auto down = std::ranges::find(events, Kind::buttonDown, &XInputWindow::Event::kind);
    ASSERT_NE(down, events.end());
    expectAt(*down, 100, 100);
    expectAt(events.back(), 700, 500);
    EXPECT_EQ(events.back().kind, Kind::buttonUp);
    const auto heldMoves = std::count_if(down, events.end(), [](const auto& event) {
        return event.kind == Kind::motion && (event.state & XCB_BUTTON_MASK_1);
    });
    EXPECT_GE(heldMoves, 2);  // a drop target is told on the way
}

TEST_F(RemotePointer, scrollsBothWays) {
    const auto up = buttonsOf(seenOf("scroll 500 300 0 200", 2));
    ASSERT_GE(up.size(), 4U);
    for (const auto& event : up) {
        EXPECT_EQ(event.detail, wheelUp);
        expectAt(event, 500, 300);
    }
    const auto down = buttonsOf(seenOf("scroll 500 300 0 -200", 2));
    ASSERT_GE(down.size(), 4U);
    EXPECT_TRUE(std::ranges::all_of(down, [](const auto& event) { return event.detail == wheelDown; }));
}

const std::string text =
    "Hello, World! x^2 ~/a@b.c [y] {z} \\ | \u00E9 \u20AC \u00F1 \u00FC\u00DF \u4F60\u597D "
    "\u0414\u0430 \U0001F600 `'\" end";

/// Types into an application on the host and reads back what it got.
class RemoteTyping : public EndToEndTest, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startServer());
        windowManager_ = startOnScreen({"openbox", "--sm-disable"});
        // A window that is there before its manager does not get the keyboard.
        ASSERT_TRUE(eventually([&] { return hasWindowManager(); }, within(20)));
        const std::string file = (folder_ / "typed.txt").string();
        const std::string environment = "LC_ALL=C.UTF-8";
        if (GetParam() == std::string("terminal")) {
            application_ = startOnScreen(
                {"env", environment, "xterm", "-e", "sh", "-c", "stty raw -echo; exec cat > " + file});
        } else {
            application_ = startOnScreen({"env", environment, "QT_QPA_PLATFORM=xcb", TEXT_FIELD, file});
        }
        host_ = startHost();
        viewer_ = watch();
        ASSERT_TRUE(viewer_) << host_->said();
        // It takes keys some time after its start: dots are typed until one arrives.
        ASSERT_TRUE(
            eventually([&] { return does(*viewer_, "type .") && typed().starts_with('.'); }, within(20)));
    }

    bool hasWindowManager() {
        static constexpr std::string_view name = "_NET_SUPPORTING_WM_CHECK";
        xcb_connection_t* connection = screen().connection();
        const std::unique_ptr<xcb_intern_atom_reply_t, void (*)(void*)> atom(
            xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, name.size(), name.data()),
                                  nullptr),
            std::free);
        if (!atom) return false;
        const std::unique_ptr<xcb_get_property_reply_t, void (*)(void*)> property(
            xcb_get_property_reply(
                connection,
                xcb_get_property(connection, 0, screen().root(), atom->atom, XCB_ATOM_WINDOW, 0, 1), nullptr),
            std::free);
        return property && property->type != 0;
    }
    std::string typed() const { return contentOf(folder_ / "typed.txt"); }
    /// Without the dots that `SetUp` typed.
    std::string typedText() const {
        std::string all = typed();
        return all.erase(0, std::min(all.find_first_not_of('.'), all.size()));
    }

    std::unique_ptr<RunningProgram> windowManager_, application_, host_, viewer_;
};

TEST_P(RemoteTyping, arrivesInTheApplication) {
    std::string line = text;  // as a script has it
    line.insert(line.find('\\'), "\\");
    ASSERT_TRUE(does(*viewer_, "type " + line));
    EXPECT_TRUE(eventually([&] { return typedText() == text; }, within(20))) << typedText();
    ASSERT_TRUE(does(*viewer_, "key return"));
    const std::string lineEnd = GetParam() == std::string("terminal") ? "\r" : "\n";
    EXPECT_TRUE(eventually([&] { return typedText() == text + lineEnd; })) << typedText();
}

INSTANTIATE_TEST_SUITE_P(, RemoteTyping, testing::Values("terminal", "textField"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace velmora
