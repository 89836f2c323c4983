#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QTimer>
#include <QWindow>
#include <memory>

#include "Platform/Linux/Window/ShortcutGrabs.h"
#include "Testing/FakeShortcutGrab.h"
#include "Testing/WaylandCompositor.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"

namespace velmora {
namespace {

using WindowId = ShortcutGrab::WindowId;

class FakeRig {
public:
    std::unique_ptr<ShortcutGrab> make() {
        auto made = std::make_unique<FakeShortcutGrab>();
        fake_ = made.get();
        return made;
    }
    WindowId window() const { return 7; }
    bool desktopLacksShortcuts() const { return fake_->held() > 0; }
    template <class F>
    bool until(F condition) {
        return condition();
    }

private:
    FakeShortcutGrab* fake_ = nullptr;
};

/// A program with a window that has the focus.
class Program {
public:
    explicit Program(const char* platform) {
        qputenv("QT_QPA_PLATFORM", platform);
        application_ = std::make_unique<QGuiApplication>(argc_, argv_);
        window_ = std::make_unique<QWindow>();
        window_->show();
    }
    std::unique_ptr<ShortcutGrab> make() { return makeShortcutGrab(); }
    WindowId window() const { return window_->winId(); }
    /// Turns the program's events until then; false if that takes longer than any machine should.
    template <class F>
    bool until(F condition) {
        QTimer end, again;
        end.setSingleShot(true);
        end.start(20'000);
        again.start(10);  // what others do brings no event
        while (!condition()) {
            if (!end.isActive()) return false;
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

private:
    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    std::unique_ptr<QGuiApplication> application_;
    std::unique_ptr<QWindow> window_;
};

class X11Rig {
public:
    std::unique_ptr<ShortcutGrab> make() { return program_.make(); }
    WindowId window() const { return program_.window(); }
    /// Whether nobody else can have the keyboard.
    bool desktopLacksShortcuts() {
        auto* const c = other_.connection();
        const auto cookie = xcb_grab_keyboard(c, 0, other_.root(), XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC,
                                              XCB_GRAB_MODE_ASYNC);
        xcb_grab_keyboard_reply_t* const reply = xcb_grab_keyboard_reply(c, cookie, nullptr);
        const bool isOurs = reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
        free(reply);
        if (isOurs) xcb_ungrab_keyboard(c, XCB_CURRENT_TIME);
        xcb_flush(c);
        return !isOurs;
    }
    template <class F>
    bool until(F condition) {
        return program_.until(std::move(condition));
    }

private:
    XServerFixture server_{XServerFixture::Kind::xvfb};
    ScopedDisplay display_{server_.display()};
    XTestClient other_{server_.display()};
    Program program_{"xcb"};
};

class WaylandRig {
public:
    std::unique_ptr<ShortcutGrab> make() { return program_.make(); }
    WindowId window() const { return program_.window(); }
    bool desktopLacksShortcuts() { return desktop.shortcutRequests() > 0; }
    template <class F>
    bool until(F condition) {
        return program_.until(std::move(condition));
    }

    WaylandCompositor desktop;

private:
    struct Socket {
        explicit Socket(const std::string& path) { qputenv("WAYLAND_DISPLAY", path.c_str()); }
        ~Socket() { qunsetenv("WAYLAND_DISPLAY"); }
    };
    Socket socket_{desktop.socket()};
    Program program_{"wayland"};
};

template <class Rig>
struct ShortcutGrabContract : testing::Test {
    void take(ShortcutGrab& grab) {
        EXPECT_TRUE(rig.until([&] { return grab.take(rig.window()); }));
        EXPECT_TRUE(rig.until([&] { return rig.desktopLacksShortcuts(); }));
    }
    void expectGivenBack() {
        EXPECT_TRUE(rig.until([&] { return !rig.desktopLacksShortcuts(); }));
    }

    Rig rig;
};

struct RigNames {
    template <class Rig>
    static std::string GetName(int) {
        if (std::is_same_v<Rig, FakeRig>) return "Fake";
        return std::is_same_v<Rig, X11Rig> ? "X11" : "Wayland";
    }
};
using Rigs = testing::Types<FakeRig, X11Rig, WaylandRig>;
TYPED_TEST_SUITE(ShortcutGrabContract, Rigs, RigNames);

TYPED_TEST(ShortcutGrabContract, theDesktopIsWithoutThemUntilTheyAreGivenBack) {
    const auto grab = this->rig.make();
    this->take(*grab);
    EXPECT_TRUE(grab->take(this->rig.window())) << "asking again changes nothing";
    grab->giveBack(this->rig.window());
    this->expectGivenBack();
    grab->giveBack(this->rig.window());
    this->take(*grab);
    grab->giveBack(this->rig.window());
    this->expectGivenBack();
}

TEST(WaylandShortcutGrabTest, thePersonDecides) {
    WaylandRig rig;
    const auto grab = rig.make();
    rig.desktop.lendShortcuts(false);
    EXPECT_TRUE(rig.until([&] { return !grab->take(rig.window()) && rig.desktopLacksShortcuts(); }));
    EXPECT_EQ(rig.desktop.shortcutRequests(), 1) << "asked once";
    rig.desktop.lendShortcuts(true);
    EXPECT_TRUE(rig.until([&] { return grab->take(rig.window()); }));
    rig.desktop.lendShortcuts(false);
    EXPECT_TRUE(rig.until([&] { return !grab->take(rig.window()); }));
}

TEST(X11ShortcutGrabTest, goingGivesThemBackAndNoWindowIsNoFault) {
    X11Rig rig;
    auto grab = rig.make();
    EXPECT_FALSE(grab->take(1));
    grab->giveBack(1);
    EXPECT_TRUE(rig.until([&] { return grab->take(rig.window()) && rig.desktopLacksShortcuts(); }));
    grab.reset();
    EXPECT_TRUE(rig.until([&] { return !rig.desktopLacksShortcuts(); }));
}

}  // namespace
}  // namespace velmora
