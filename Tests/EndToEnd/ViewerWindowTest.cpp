#include <gmock/gmock.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "Testing/XInputWindow.h"
#include "Tests/EndToEnd/EndToEndTest.h"
#include "Tests/EndToEnd/Person.h"

namespace velmora {
namespace {

using Event = XInputWindow::Event;
using Kind = Event::Kind;
using Events = std::vector<Event>;

constexpr std::uint32_t picture = 0xC03020;  // the host's screen, where nothing else is
constexpr std::uint8_t aKey = 38, wKey = 25, tabKey = 23, altKey = 64, wheelUp = 4;

struct Cursor {
    int width = 0, height = 0, hotX = 0, hotY = 0;
    bool operator==(const Cursor&) const = default;
};

/// What the pointer of a screen looks like now.
Cursor cursorOn(const std::string& display) {
    xcb_connection_t* const c = xcb_connect(display.c_str(), nullptr);
    std::free(xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr));
    const std::unique_ptr<xcb_xfixes_get_cursor_image_reply_t, void (*)(void*)> image(
        xcb_xfixes_get_cursor_image_reply(c, xcb_xfixes_get_cursor_image(c), nullptr), std::free);
    xcb_disconnect(c);
    return image ? Cursor{image->width, image->height, image->xhot, image->yhot} : Cursor{};
}

/// A window on a host: the built viewer on a screen of its own, with a window manager and a person's hands.
class ViewerWindowEndToEnd : public EndToEndTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startServer(XServerFixture::Kind::xvfb, hostSize));
        person_ = std::make_unique<Person>(Person::Options{.home = homeOf("viewer"), .screen = viewerSize});
        ASSERT_EQ(person_->error(), "");
        host_ = startHost();
        hostWindow_ = std::make_unique<XInputWindow>(server().display());
        ASSERT_TRUE(hostWindow_->ok());
    }
    std::unique_ptr<RunningProgram> onViewer(const std::vector<std::string>& command) {
        return person_->start(command);
    }
    void openWindow() {
        paintHost();
        viewer_ = onViewer({VIEW_PROGRAM, address, "--password", password, "--name", "Desk"});
        ASSERT_TRUE(eventually([&] { return findPicture() && isAtRest(); }, within(20)))
            << viewer_->said() << host_->said();
        use({"mousemove", std::to_string(place_.x + 300), std::to_string(place_.y + 200), "click", "1"});
        ASSERT_TRUE(hostWindow_->waitUntil([](const Events& events) {
            return std::ranges::count(events, Kind::buttonUp, &Event::kind) > 0;
        }));
        hostWindow_->take();
    }
    /// Over the window that listens there.
    void paintHost() {
        const std::uint32_t values[] = {picture};
        auto* const c = hostWindow_->connection();
        const xcb_gcontext_t pen = xcb_generate_id(c);
        xcb_create_gc(c, pen, hostWindow_->window(), XCB_GC_FOREGROUND, values);
        const xcb_rectangle_t all{0, 0, hostSize.width, hostSize.height};
        xcb_poly_fill_rectangle(c, hostWindow_->window(), pen, 1, &all);
        xcb_free_gc(c, pen);
        xcb_flush(c);
    }
    /// Over the host's window; one of its server's own cursors.
    void setHostCursor(std::uint16_t glyph) {
        auto* const c = hostWindow_->connection();
        const xcb_font_t font = xcb_generate_id(c);
        const xcb_cursor_t cursor = xcb_generate_id(c);
        xcb_open_font(c, font, 6, "cursor");
        xcb_create_glyph_cursor(c, cursor, font, font, glyph, glyph + 1, 0, 0, 0, 0xFFFF, 0xFFFF, 0xFFFF);
        xcb_change_window_attributes(c, hostWindow_->window(), XCB_CW_CURSOR, &cursor);
        xcb_flush(c);
    }
    /// A window manager may move a window once more when it has given it a frame.
    bool isAtRest() {
        constexpr int enough = 10;  // looks
        timesThere_ = place_ == lastPlace_ ? timesThere_ + 1 : 0;
        lastPlace_ = place_;
        return timesThere_ >= enough;
    }
    /// Whether the viewer's screen shows the host's at its own size; `place_` is then where.
    bool findPicture() {
        const auto image = person_->screenshot();
        place_ = image ? whereIs(picture, *image) : PixelRect{};
        return place_.width == hostSize.width && place_.height == hostSize.height;
    }
    /// The person's hands.
    void use(const std::vector<std::string>& what) { ASSERT_TRUE(person_->use(what)); }
    bool hostSees(Kind kind, std::uint8_t detail, int times = 1) {
        return hostWindow_->waitUntil([&](const Events& events) {
            return std::ranges::count_if(events, [&](const Event& event) {
                       return event.kind == kind && event.detail == detail;
                   }) >= times;
        });
    }

    static constexpr PixelSize hostSize{1000, 640};
    static constexpr PixelSize viewerSize{1178, 754};  // whose window shows the host's screen at its own size
    std::unique_ptr<Person> person_;
    std::unique_ptr<RunningProgram> host_, viewer_;
    std::unique_ptr<XInputWindow> hostWindow_;
    PixelRect place_, lastPlace_;
    int timesThere_ = 0;
};

TEST_F(ViewerWindowEndToEnd, handsOverThePictureReachTheHost) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    use({"mousemove", std::to_string(place_.x + 37), std::to_string(place_.y + 611), "click", "--repeat", "3",
         "4"});
    ASSERT_TRUE(hostSees(Kind::buttonUp, wheelUp, 3));
    const Events scrolled = hostWindow_->take();
    EXPECT_NEAR(scrolled.back().x, 37, 1);
    EXPECT_NEAR(scrolled.back().y, 611, 1);
    EXPECT_EQ(std::ranges::count(scrolled, Kind::buttonDown, &Event::kind), 3);

    use({"key", "A"});
    ASSERT_TRUE(hostSees(Kind::keyUp, aKey));
    const Events typed = hostWindow_->take();
    const auto down = std::ranges::find_if(
        typed, [](const Event& event) { return event.kind == Kind::keyDown && event.detail == aKey; });
    ASSERT_NE(down, typed.end());
    EXPECT_TRUE(down->state & XCB_MOD_MASK_SHIFT);
    EXPECT_FALSE(hostWindow_->isAnythingDown());
}

TEST_F(ViewerWindowEndToEnd, overThePictureThePointerLooksAsTheHosts) {
    constexpr std::uint16_t textBeam = 152, hand = 60;  // of the font "cursor"
    setHostCursor(textBeam);
    ASSERT_NO_FATAL_FAILURE(openWindow());
    const std::string viewers = person_->display();
    const auto looksAlike = [&] { return cursorOn(viewers) == cursorOn(server().display()); };
    EXPECT_TRUE(eventually(looksAlike)) << "the one that was there when the window opened";
    const Cursor beam = cursorOn(viewers);
    setHostCursor(hand);
    EXPECT_TRUE(eventually([&] { return cursorOn(viewers) != beam && looksAlike(); }));
    use({"mousemove", std::to_string(place_.x + 300), std::to_string(place_.y - 24)});
    EXPECT_TRUE(eventually([&] { return !looksAlike(); })) << "this machine's own, off the picture";
}

TEST_F(ViewerWindowEndToEnd, theDesktopsOwnShortcutsGoToTheHostUntilThePersonWantsOut) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    // A grab may have to wait for the window manager's own to end.
    ASSERT_TRUE(eventually([&] {
        use({"key", "alt+Tab"});
        const Events seen = hostWindow_->take();
        return std::ranges::any_of(
            seen, [](const Event& event) { return event.kind == Kind::keyDown && event.detail == tabKey; });
    }));
    use({"key", "ctrl+w"});  // so do the keys of the window's own menu
    ASSERT_TRUE(hostSees(Kind::keyUp, wKey));
    use({"key", "ctrl+alt+shift+Escape"});
    EXPECT_FALSE(hostWindow_->isAnythingDown());
    hostWindow_->take();
    use({"keydown", "alt", "key", "Tab", "keyup", "alt", "key", "a"});
    ASSERT_TRUE(hostSees(Kind::keyUp, aKey));
    const Events after = hostWindow_->take();
    EXPECT_TRUE(std::ranges::none_of(after, [](const Event& event) { return event.detail == tabKey; }));
    EXPECT_FALSE(hostWindow_->isAnythingDown());
    use({"key", "ctrl+w"});
    EXPECT_TRUE(eventually([&] { return !viewer_->isRunning(); }, within(20)));
}

TEST_F(ViewerWindowEndToEnd, nothingStaysDownWhenAnotherWindowTakesTheKeys) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    use({"keydown", "alt", "keydown", "a"});
    ASSERT_TRUE(hostSees(Kind::keyDown, aKey));
    ASSERT_TRUE(hostSees(Kind::keyDown, altKey));
    const auto other = onViewer({"xterm", "-geometry", "20x5+0+0"});
    use({"search", "--sync", "--onlyvisible", "--class", "xterm", "windowactivate"});
    EXPECT_FALSE(hostWindow_->isAnythingDown());
    use({"keyup", "a", "keyup", "alt"});
    EXPECT_FALSE(hostWindow_->isAnythingDown());
}

/// Each control says what it is, and does it when it is pressed where it says that it stands.
TEST_F(ViewerWindowEndToEnd, theToolbarIsFoundByNamesAndDoesWhatTheySay) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    EXPECT_TRUE(person_->sees(*viewer_, "label", "Local network")) << person_->describe(*viewer_);
    EXPECT_THAT(person_->namelessControls(*viewer_), testing::IsEmpty());

    ASSERT_TRUE(person_->press(*viewer_, "push button", "Zoom in"));
    EXPECT_TRUE(person_->sees(*viewer_, "slider", "Zoom",
                              [](const Control& slider) { return slider.value.starts_with("150"); }));
    ASSERT_TRUE(person_->press(*viewer_, "push button", "Zoom out"));
    EXPECT_TRUE(person_->sees(*viewer_, "push button", "Zoom out",
                              [](const Control& button) { return !button.isEnabled; }));
    ASSERT_TRUE(person_->press(*viewer_, "push button", "Screenshot"));
    EXPECT_TRUE(eventually([&] {
        const auto files = std::filesystem::directory_iterator(homeOf("viewer"));
        return std::ranges::any_of(files, [](const auto& file) { return file.path().extension() == ".png"; });
    }));
    const auto stats = person_->find(*viewer_, "check box", "Stats");
    ASSERT_TRUE(stats);
    ASSERT_TRUE(person_->press(*viewer_, "check box", "Stats"));
    EXPECT_TRUE(person_->sees(*viewer_, "check box", "Stats",
                              [](const Control& button) { return button.isChecked; }));
    ASSERT_TRUE(person_->press(*viewer_, "push button", "Full Screen"));
    use({"mousemove", std::to_string(viewerSize.width / 2), std::to_string(viewerSize.height / 2)});
    EXPECT_TRUE(person_->seesNoMore(*viewer_, "check box", "Stats"));
    use({"mousemove", std::to_string(viewerSize.width / 2), "0"});
    ASSERT_TRUE(person_->press(*viewer_, "push button", "Full Screen"));
    EXPECT_TRUE(person_->sees(*viewer_, "check box", "Stats",
                              [&](const Control& button) { return button.place == stats->place; }));
}

TEST_F(ViewerWindowEndToEnd, closingItFreesTheHostAndAWrongPasswordEndsIt) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    // Off the picture, keys are for this desktop, from when the window has seen the pointer go.
    ASSERT_TRUE(eventually(
        [&] {
            use({"mousemove", std::to_string(place_.x + 300), std::to_string(place_.y - 24), "key",
                 "alt+F4"});
            return !viewer_->isRunning();
        },
        within(20)));
    EXPECT_EQ(viewer_->end(within(20)), 0);
    EXPECT_TRUE(host_->says("waiting for a viewer", 2)) << host_->said();
    const auto stranger =
        onViewer({VIEW_PROGRAM, address, "--password", password == "111111" ? "222222" : "111111"});
    EXPECT_EQ(stranger->end(within(20)), 1);
    EXPECT_THAT(stranger->said(), testing::HasSubstr("password"));
}

}  // namespace
}  // namespace velmora
