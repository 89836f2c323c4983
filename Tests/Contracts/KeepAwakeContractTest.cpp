#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <thread>

#include "Platform/Linux/System/LinuxKeepAwake.h"
#include "Testing/FakeBusService.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/PrivateBus.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr const char* logindInterface =
    "<node><interface name='org.freedesktop.login1.Manager'><method name='Inhibit'>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='h' direction='out'/></method></interface></node>";
constexpr const char* screenSaverInterface =
    "<node><interface name='org.freedesktop.ScreenSaver'>"
    "<method name='Inhibit'><arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='u' direction='out'/></method>"
    "<method name='UnInhibit'><arg type='u' direction='in'/></method>"
    "<method name='SimulateUserActivity'/></interface></node>";

struct FakeFixture {
    VirtualTime time;
    VirtualQueue main{time, "main"};
    FakeKeepAwake keepAwake{main};

    void refuse() { keepAwake.failure = Failure{"refused", 5}; }
    template <class F>
    bool waitFor(F condition) {
        return time.advanceUntil(condition, 10s);
    }
    template <class F>
    void run(F f) {
        f();
    }
    bool holdsSystem() { return keepAwake.systemAssertions() == 1; }
    bool holdsDisplay() { return keepAwake.displayAssertions() == 1; }
};

struct LinuxFixture {
    LinuxFixture() {
        ::unsetenv("DISPLAY");
        logind.answer("Inhibit", "fd");
        screenSaver.answer("Inhibit", "(uint32 7,)");
        screenSaver.answer("UnInhibit", "()");
        screenSaver.answer("SimulateUserActivity", "()");
    }
    PrivateBus systemBus{PrivateBus::Role::system};
    PrivateBus sessionBus{PrivateBus::Role::session};
    FakeBusService logind{systemBus.address(), "org.freedesktop.login1", "/org/freedesktop/login1",
                          logindInterface};
    FakeBusService screenSaver{sessionBus.address(), "org.freedesktop.ScreenSaver",
                               "/org/freedesktop/ScreenSaver", screenSaverInterface};
    ThreadQueue main{"main"};
    LinuxKeepAwake keepAwake{main};

    void refuse() { systemBus.stop(), sessionBus.stop(); }
    template <class F>
    bool waitFor(F condition) {
        for (int i = 0; i < 500; ++i) {
            bool holds = false;
            main.runSync([&] { holds = condition(); });
            if (holds) return true;
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }
    template <class F>
    void run(F f) {
        main.runSync(f);
    }
    bool holdsSystem() { return logind.lockIsHeld(); }
    bool holdsDisplay() {
        const auto calls = screenSaver.calls();
        return std::ranges::count(calls, "Inhibit('Velmora', 'reason')") >
               std::ranges::count(calls, "UnInhibit(7,)");
    }
};

template <class Fixture>
class KeepAwakeContract : public testing::Test {
protected:
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, LinuxFixture>;
TYPED_TEST_SUITE(KeepAwakeContract, Fixtures);

TYPED_TEST(KeepAwakeContract, anAssertionHoldsUntilItIsDestroyed) {
    auto& fixture = this->fixture_;
    std::optional<Status> system, display;
    std::unique_ptr<KeepAwake::Assertion> one, other;
    fixture.run([&] {
        one = fixture.keepAwake.preventIdleSystemSleep("reason", [&](Status status) { system = status; });
        other = fixture.keepAwake.preventIdleDisplaySleep("reason", [&](Status status) { display = status; });
        fixture.keepAwake.declareUserActivity("viewer connected");
        EXPECT_FALSE(system) << "told from inside the call";
    });
    ASSERT_TRUE(fixture.waitFor([&] { return system && display; }));
    EXPECT_TRUE(system->ok());
    EXPECT_TRUE(display->ok());
    EXPECT_TRUE(fixture.holdsSystem());
    EXPECT_TRUE(fixture.holdsDisplay());
    fixture.run([&] { one.reset(), other.reset(); });
    EXPECT_TRUE(fixture.waitFor([&] { return !fixture.holdsSystem() && !fixture.holdsDisplay(); }));
}

TYPED_TEST(KeepAwakeContract, oneThatIsDestroyedAtOnceTellsNothingAndHoldsNothing) {
    auto& fixture = this->fixture_;
    bool barrier = false;
    fixture.run([&] {
        auto gone = fixture.keepAwake.preventIdleSystemSleep("reason", [](Status) { FAIL() << "told"; });
        gone.reset();
    });
    std::unique_ptr<KeepAwake::Assertion> later;
    fixture.run([&] {
        later = fixture.keepAwake.preventIdleDisplaySleep("reason", [&](Status) { barrier = true; });
    });
    ASSERT_TRUE(fixture.waitFor([&] { return barrier; }));
    EXPECT_FALSE(fixture.holdsSystem());
    fixture.run([&] { later.reset(); });
}

TYPED_TEST(KeepAwakeContract, aRefusalIsTold) {
    auto& fixture = this->fixture_;
    fixture.refuse();
    std::optional<Status> outcome;
    std::unique_ptr<KeepAwake::Assertion> held, activity;
    fixture.run([&] {
        held = fixture.keepAwake.preventIdleSystemSleep("reason", [&](Status status) { outcome = status; });
        activity = fixture.keepAwake.beginActivity("reason");
    });
    EXPECT_TRUE(held && activity);
    ASSERT_TRUE(fixture.waitFor([&] { return outcome.has_value(); }));
    EXPECT_FALSE(outcome->ok());
    fixture.run([&] { held.reset(), activity.reset(); });
}

TEST(LinuxKeepAwakeTest, withoutADesktopTheXServerKeepsItsScreenOn) {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    ::unsetenv("XDG_RUNTIME_DIR");
    XServerFixture server(XServerFixture::Kind::xvfb);
    const ScopedDisplay display(server.display());
    ThreadQueue main("main");
    LinuxKeepAwake keepAwake(main);
    std::promise<Status> outcome;
    std::unique_ptr<KeepAwake::Assertion> held;
    main.runSync([&] {
        keepAwake.declareUserActivity("viewer connected");
        held = keepAwake.preventIdleDisplaySleep("reason", [&](Status status) { outcome.set_value(status); });
    });
    EXPECT_TRUE(outcome.get_future().get().ok());
    main.runSync([&] { held.reset(); });
}

}  // namespace
}  // namespace velmora
