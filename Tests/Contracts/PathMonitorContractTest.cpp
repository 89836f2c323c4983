#include <gtest/gtest.h>

#include <future>

#include "Platform/Linux/System/NetworkManagerPathMonitor.h"
#include "Testing/FakeBusService.h"
#include "Testing/FakePathMonitor.h"
#include "Testing/PrivateBus.h"

namespace velmora {
namespace {

constexpr const char* managerInterface =
    "<node><interface name='org.freedesktop.NetworkManager'>"
    "<property name='Metered' type='u' access='read'/></interface></node>";

struct FakeFixture {
    ThreadQueue main{"main"};
    FakePathMonitor monitor{main};
    void setMetered(bool byUser) { monitor.kind = {.constrained = byUser, .expensive = !byUser}; }
};
struct NetworkManagerFixture {
    PrivateBus bus{PrivateBus::Role::system};
    FakeBusService manager{bus.address(), "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                           managerInterface};
    ThreadQueue main{"main"};
    NetworkManagerPathMonitor monitor{main};
    NetworkManagerFixture() { manager.setProperty("Metered", "uint32 4"); }
    void setMetered(bool byUser) { manager.setProperty("Metered", byUser ? "uint32 1" : "uint32 3"); }
};

template <class Fixture>
class PathMonitorContract : public testing::Test {
protected:
    PathKind currentPath() {
        std::promise<PathKind> told;
        std::unique_ptr<PathMonitor::Request> request;
        fixture_.main.runSync([&] {
            request = fixture_.monitor.currentPath([&](PathKind kind) {
                EXPECT_TRUE(fixture_.main.isCurrent());
                told.set_value(kind);
            });
        });
        const auto kind = told.get_future().get();
        fixture_.main.runSync([&] { request.reset(); });
        return kind;
    }
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, NetworkManagerFixture>;
TYPED_TEST_SUITE(PathMonitorContract, Fixtures);

TYPED_TEST(PathMonitorContract, tellsWhatThePathCostsWhenAsked) {
    EXPECT_EQ(this->currentPath(), PathKind());
    this->fixture_.setMetered(true);
    EXPECT_EQ(this->currentPath(), (PathKind{.constrained = true}));
    this->fixture_.setMetered(false);
    EXPECT_EQ(this->currentPath(), (PathKind{.expensive = true}));
}

TYPED_TEST(PathMonitorContract, anEndedRequestTellsNothing) {
    this->fixture_.main.runSync([&] {
        auto request = this->fixture_.monitor.currentPath([](PathKind) { FAIL() << "told after its end"; });
        request.reset();
    });
    this->currentPath();
}

TEST(NetworkManagerPathMonitorTest, nothingIsKnownWithoutIt) {
    PrivateBus bus(PrivateBus::Role::system);
    ThreadQueue main("main");
    NetworkManagerPathMonitor monitor(main);
    std::promise<PathKind> told;
    std::unique_ptr<PathMonitor::Request> request;
    main.runSync([&] { request = monitor.currentPath([&](PathKind kind) { told.set_value(kind); }); });
    EXPECT_EQ(told.get_future().get(), PathKind());
    main.runSync([&] { request.reset(); });
}

}  // namespace
}  // namespace velmora
