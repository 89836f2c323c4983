#include <gmock/gmock.h>
#include <linux/input-event-codes.h>

#include <algorithm>

#include "Testing/WaylandCompositor.h"
#include "Testing/XInputWindow.h"
#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

using Events = std::vector<XInputWindow::Event>;

constexpr std::uint32_t picture = 0xC03020;  // the host's screen
constexpr std::uint8_t aKey = 38;            // X11's number

/// The built viewer on a desktop without an X server.
class ViewerOnWayland : public EndToEndTest {
protected:
    void openWindow(bool lendsShortcuts = true) {
        ASSERT_NO_FATAL_FAILURE(startServer(XServerFixture::Kind::xvfb, {1000, 640}));
        desktop_ =
            std::make_unique<WaylandCompositor>(WaylandCompositor::Options{.lendsShortcuts = lendsShortcuts});
        ASSERT_FALSE(desktop_->socket().empty());
        host_ = startHost();
        hostWindow_ = std::make_unique<XInputWindow>(server().display());
        ASSERT_TRUE(hostWindow_->ok());
        xcb_change_window_attributes(hostWindow_->connection(), hostWindow_->window(), XCB_CW_BACK_PIXEL,
                                     &picture);
        xcb_clear_area(hostWindow_->connection(), 0, hostWindow_->window(), 0, 0, 0, 0);
        xcb_flush(hostWindow_->connection());
        viewer_ = std::make_unique<RunningProgram>(
            std::vector<std::string>{VIEW_PROGRAM, address, "--password", password, "--log"},
            RunningProgram::Place{.home = homeOf("viewer"), .wayland = desktop_->socket()});
        ASSERT_TRUE(eventually([this] { return showsPicture(); }, within(20)))
            << viewer_->said() << host_->said();
        desktop_->focus();
        desktop_->movePointerTo(middle.x, middle.y);
    }
    bool showsPicture() {
        const auto pixel = desktop_->pixelAt(middle.x, middle.y);
        return pixel && std::ranges::all_of(std::vector{0, 8, 16}, [&](int shift) {
                   const auto part = [shift](std::uint32_t p) { return static_cast<int>(p >> shift & 255); };
                   return std::abs(part(*pixel) - part(picture)) < 12;
               });
    }
    bool hasShortcuts(int requests) {
        return eventually([=, this] { return desktop_->shortcutRequests() == requests; }, within(20));
    }
    bool hostSeesA() {
        return hostWindow_->waitUntil([](const Events& events) {
            return std::ranges::count(events, aKey, &XInputWindow::Event::detail) > 0;
        });
    }

    static constexpr PixelRect middle{400, 320};
    std::unique_ptr<WaylandCompositor> desktop_;
    std::unique_ptr<RunningProgram> host_, viewer_;
    std::unique_ptr<XInputWindow> hostWindow_;
};

TEST_F(ViewerOnWayland, theDesktopLendsItsShortcutsWhileTheKeysAreTheHosts) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    EXPECT_TRUE(desktop_->pixelAt(799, 599) && !desktop_->pixelAt(800, 0)) << "as large as it was told to be";
    EXPECT_TRUE(hasShortcuts(1)) << viewer_->said();
    EXPECT_TRUE(viewer_->says("Keyboard capture on")) << viewer_->said();
    desktop_->key(KEY_A, true);
    desktop_->key(KEY_A, false);
    EXPECT_TRUE(hostSeesA());
    desktop_->takePointerAway();
    EXPECT_TRUE(hasShortcuts(0)) << "off the picture they are this desktop's";
    desktop_->movePointerTo(middle.x, middle.y);
    EXPECT_TRUE(hasShortcuts(1));
    desktop_->unfocus();
    EXPECT_TRUE(hasShortcuts(0));
    desktop_->focus();
    EXPECT_TRUE(hasShortcuts(1));
    for (const auto key : {KEY_LEFTCTRL, KEY_LEFTALT, KEY_LEFTSHIFT, KEY_ESC}) desktop_->key(key, true);
    EXPECT_TRUE(hasShortcuts(0)) << "the way out";
    for (const auto key : {KEY_ESC, KEY_LEFTSHIFT, KEY_LEFTALT, KEY_LEFTCTRL}) desktop_->key(key, false);
    EXPECT_FALSE(hostWindow_->isAnythingDown());
    EXPECT_TRUE(viewer_->isRunning());
}

TEST_F(ViewerOnWayland, whatIsCopiedAtOneEndIsPastedAtTheOther) {
    ASSERT_NO_FATAL_FAILURE(openWindow());
    constexpr const char* text = "text/plain;charset=utf-8";
    const auto copied = startOnScreen({"sh", "-c", "printf here | xclip -selection clipboard"});
    EXPECT_TRUE(eventually([&] { return desktop_->paste(text) == "here"; }, within(20))) << viewer_->said();
    desktop_->copy({{text, "there"}});
    EXPECT_TRUE(eventually(
        [&] {
            const auto pasted = startOnScreen({"xclip", "-selection", "clipboard", "-o"});
            return pasted->end(within(20)) == 0 && pasted->said() == "there";
        },
        within(20)))
        << viewer_->said();
}

TEST_F(ViewerOnWayland, aDesktopThatKeepsItsShortcutsIsToldOf) {
    ASSERT_NO_FATAL_FAILURE(openWindow(false));
    EXPECT_TRUE(viewer_->says("This desktop lends its shortcuts to nobody")) << viewer_->said();
    EXPECT_TRUE(viewer_->says("system shortcuts stay on this Mac")) << viewer_->said();
    desktop_->key(KEY_A, true);
    desktop_->key(KEY_A, false);
    EXPECT_TRUE(hostSeesA()) << "all other keys go to the host";
}

}  // namespace
}  // namespace velmora
