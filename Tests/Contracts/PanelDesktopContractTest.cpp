#include <gtest/gtest.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "Platform/Linux/Window/X11PanelDesktop.h"
#include "Testing/FakePanelDesktop.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class FakeRig {
public:
    FakeRig() { desktop_.hasWindowManager = false; }
    PanelDesktop& desktop() { return desktop_; }
    PanelDesktop::WindowId window() const { return 7; }
    bool isUnlisted() const { return desktop_.unlisted.contains(window()); }
    void manageWindows() { desktop_.hasWindowManager = true; }
    void press() { desktop_.press(); }
    void turnWheel() {}

private:
    FakePanelDesktop desktop_;
};

class X11Rig {
public:
    X11Rig() {
        xcb_create_window(x(), XCB_COPY_FROM_PARENT, window_, person_.root(), 0, 0, 9, 9, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
        sync();
    }
    PanelDesktop& desktop() { return desktop_; }
    PanelDesktop::WindowId window() const { return window_; }
    bool isUnlisted() {
        const std::unique_ptr<xcb_get_property_reply_t, void (*)(void*)> value{
            xcb_get_property_reply(
                x(), xcb_get_property(x(), 0, window_, atom("_NET_WM_STATE"), XCB_ATOM_ATOM, 0, 8), nullptr),
            std::free};
        const auto* states = static_cast<const xcb_atom_t*>(xcb_get_property_value(value.get()));
        return value->length > 0 && states[0] == atom("_NET_WM_STATE_SKIP_TASKBAR");
    }
    void manageWindows() {
        for (const auto owner : {person_.root(), window_})
            xcb_change_property(x(), XCB_PROP_MODE_REPLACE, owner, atom("_NET_SUPPORTING_WM_CHECK"),
                                XCB_ATOM_WINDOW, 32, 1, &window_);
        sync();
    }
    void press() { pressAndRelease(1); }
    void turnWheel() { pressAndRelease(5); }

private:
    xcb_connection_t* x() const { return person_.connection(); }
    void sync() { std::free(xcb_get_input_focus_reply(x(), xcb_get_input_focus(x()), nullptr)); }
    xcb_atom_t atom(std::string_view name) {
        auto* reply = xcb_intern_atom_reply(
            x(), xcb_intern_atom(x(), 0, static_cast<std::uint16_t>(name.size()), name.data()), nullptr);
        const xcb_atom_t atom = reply->atom;
        std::free(reply);
        return atom;
    }
    void pressAndRelease(std::uint8_t button) {
        xcb_test_fake_input(x(), XCB_BUTTON_PRESS, button, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_test_fake_input(x(), XCB_BUTTON_RELEASE, button, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        sync();
    }

    XServerFixture server_{XServerFixture::Kind::xvfb};
    ScopedDisplay display_{server_.display()};
    XTestClient person_{server_.display()};
    const xcb_window_t window_ = xcb_generate_id(person_.connection());
    X11PanelDesktop desktop_;
};

template <class Rig>
class PanelDesktopContract : public testing::Test {
protected:
    PanelDesktopContract() {
        rig.desktop().onPress = [this] { ++pressed; };
    }
    bool becomes(int presses) {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (pressed != presses && std::chrono::steady_clock::now() < end)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return pressed == presses;
    }
    Rig rig;
    int pressed = 0;
};
using Rigs = testing::Types<FakeRig, X11Rig>;
TYPED_TEST_SUITE(PanelDesktopContract, Rigs);

TYPED_TEST(PanelDesktopContract, tellsOfPressesOnlyWhileTheyAreWatched) {
    auto& rig = this->rig;
    rig.press();
    rig.desktop().startWatching();
    rig.turnWheel();
    rig.press();
    EXPECT_TRUE(this->becomes(1));
    rig.press();
    EXPECT_TRUE(this->becomes(2));
    rig.desktop().stopWatching();
    rig.press();
    rig.desktop().startWatching();
    rig.press();
    EXPECT_TRUE(this->becomes(3));
}

TYPED_TEST(PanelDesktopContract, knowsWhetherWindowsAreManaged) {
    EXPECT_FALSE(this->rig.desktop().managesWindows());
    this->rig.manageWindows();
    EXPECT_TRUE(this->rig.desktop().managesWindows());
}

TYPED_TEST(PanelDesktopContract, keepsAWindowOutOfTaskBars) {
    EXPECT_FALSE(this->rig.isUnlisted());
    this->rig.desktop().keepOutOfTaskBar(this->rig.window());
    EXPECT_TRUE(this->rig.isUnlisted());
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
