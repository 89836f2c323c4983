#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>

#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/PrivateBus.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// Gives this process, and what it starts, a network of its own: nothing of the machine is announced, and no
/// other responder answers. A daemon's process file is private too, or two runs of this program would each
/// take the other's daemon for their own. Once: every fixture of this program shares it. False without the
/// right to.
bool enterOwnNetwork() {
    static const bool entered = [] {
        if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return false;
        return std::system(
                   "mount --make-rprivate / && mkdir -p /run/avahi-daemon && "
                   "mount -t tmpfs tmpfs /run/avahi-daemon && "
                   "ip link set lo up && ip link add v0 type veth peer name v1 && "
                   "ip addr add 10.99.0.1/24 dev v0 && ip link set v0 up && ip link set v1 up && "
                   "ip link set lo multicast on && ip route add 224.0.0.0/4 dev v0") == 0;
    }();
    return entered;
}

/// Where libdbus looks for the system bus in this program; a private one may or may not listen there.
const std::filesystem::path& busSocket() {
    static const ScratchFolder folder;
    static const std::filesystem::path socket = [] {
        const auto path = folder / "bus";
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path.string()).c_str(), 1);
        return path;
    }();
    return socket;
}

/// Runs a program for one kind of time.
struct VirtualClock {
    VirtualTime time;
    VirtualQueue queue{time, "main"};
    template <class F>
    bool waitFor(F condition, std::chrono::milliseconds limit) {
        return time.advanceUntil(condition, limit);
    }
    template <class F>
    void run(F f) {
        f();
    }
};
struct RealClock {
    ThreadQueue queue{"velmora.test"};
    template <class F>
    bool waitFor(F condition, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        bool holds = false;
        while (!holds && std::chrono::steady_clock::now() < end) {
            queue.runSync([&] { holds = condition(); });
            if (!holds) std::this_thread::sleep_for(20ms);
        }
        return holds;
    }
    template <class F>
    void run(F f) {
        queue.runSync(f);
    }
};

struct FakeFixture : VirtualClock {
    bool mayRun() const { return true; }
    bool isThere() const { return true; }
    ServiceDiscovery& host() { return network; }
    ServiceDiscovery& viewer() { return network; }
    FakeServiceDiscovery network;
};

/// No bus, no daemon: each side answers for itself.
struct EmbeddedFixture : RealClock {
    bool mayRun() const { return hasNetwork; }
    bool isThere() const { return true; }
    ServiceDiscovery& host() { return one; }
    ServiceDiscovery& viewer() { return other; }

    const bool hasNetwork = enterOwnNetwork();
    const std::filesystem::path bus = busSocket();  // where nobody listens
    AvahiServiceDiscovery one, other;
};

/// A daemon of the test's own on a bus of its own.
struct DaemonFixture : RealClock {
    DaemonFixture() {
        if (!hasNetwork) return;
        startDaemon();
        const auto usesDaemon = [](const DebugLog::Entry& entry) {
            return entry.text == "Local network discovery through the Avahi daemon";
        };
        isUsed = waitFor([&] { return std::ranges::count_if(DebugLog::shared().entries(), usesDaemon) >= 2; },
                         20s);
    }
    void startDaemon() {
        std::ofstream(folder / "avahi.conf") << "[server]\nhost-name=contract\nuse-ipv6=no\n"
                                             << "[publish]\npublish-hinfo=no\npublish-workstation=no\n";
        auto started = ChildProgram::start({"avahi-daemon", "--no-drop-root", "--no-chroot", "--no-rlimits",
                                            "--no-proc-title", "-f", (folder / "avahi.conf").string()},
                                           {}, true);
        if (started) daemon = *std::move(started);
    }
    bool mayRun() const { return hasNetwork; }
    bool isThere() const { return isUsed; }
    ServiceDiscovery& host() { return one; }
    ServiceDiscovery& viewer() { return other; }

    const bool hasNetwork = enterOwnNetwork();
    ScratchFolder folder;
    PrivateBus bus{PrivateBus::Role::system, busSocket()};
    std::unique_ptr<ChildProgram> daemon;
    bool isUsed = false;
    const bool isDiaryClear = (DebugLog::shared().clear(), true);
    AvahiServiceDiscovery one{{.retryInterval = 500ms}}, other{{.retryInterval = 500ms}};
};

template <class Fixture>
class ServiceDiscoveryContract : public testing::Test {
protected:
    void SetUp() override {
        if (!fixture_.mayRun()) GTEST_SKIP() << "needs the right to make a network namespace";
        ASSERT_TRUE(fixture_.isThere()) << DebugLog::shared().plainText();
    }
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, EmbeddedFixture, DaemonFixture>;
TYPED_TEST_SUITE(ServiceDiscoveryContract, Fixtures);

const ServiceDiscovery::Service alpha{.name = "Jürgen’s Mac",
                                      .type = "_velmora._udp",
                                      .port = 47272,
                                      .txt = {{"fp", "AB"}, {"id", ""}, {"kind", "mac"}}};

TYPED_TEST(ServiceDiscoveryContract, whatIsPublishedIsFoundResolvedAndGoneWhenWithdrawn) {
    auto& fixture = this->fixture_;
    std::optional<std::vector<ServiceDiscovery::FoundService>> found;
    std::optional<Result<ServiceDiscovery::ResolvedService>> resolved;
    std::string name;
    std::unique_ptr<ServiceDiscovery::Request> browse, publish, resolve;
    fixture.run([&] {
        browse = fixture.viewer().browse("_velmora._udp", fixture.queue, [&](auto services) {
            EXPECT_TRUE(fixture.queue.isCurrent());
            found = services;
        });
        publish = fixture.host().publish(alpha, fixture.queue, [&](const auto& inUse) { name = inUse; });
    });
    ASSERT_TRUE(fixture.waitFor([&] { return found && found->size() == 1 && !name.empty(); }, 20s));
    EXPECT_EQ(name, "Jürgen’s Mac");
    EXPECT_EQ(found->front().service,
              (ServiceDiscovery::ServiceName{"Jürgen’s Mac", "_velmora._udp", "local"}));
    EXPECT_EQ(found->front().txt, alpha.txt);

    fixture.run([&] {
        resolve = fixture.viewer().resolve(found->front().service, 10s, fixture.queue,
                                           [&](auto outcome) { resolved = outcome; });
    });
    ASSERT_TRUE(fixture.waitFor([&] { return resolved.has_value(); }, 15s));
    ASSERT_TRUE(resolved->ok());
    EXPECT_EQ((*resolved)->port, 47272);
    EXPECT_EQ((*resolved)->txt, alpha.txt);
    EXPECT_THAT((*resolved)->address, testing::AnyOf("192.0.2.7", "10.99.0.1", "127.0.0.1"));

    fixture.run([&] { publish.reset(); });
    EXPECT_TRUE(fixture.waitFor([&] { return found->empty(); }, 20s));
    fixture.run([&] { browse.reset(), resolve.reset(); });
}

TYPED_TEST(ServiceDiscoveryContract, aNameInUseIsGivenANumber) {
    auto& fixture = this->fixture_;
    auto twin = alpha;
    twin.port = 47273;  // the very same record would be no conflict
    std::string first, second;
    std::unique_ptr<ServiceDiscovery::Request> one, other;
    fixture.run(
        [&] { one = fixture.host().publish(alpha, fixture.queue, [&](const auto& name) { first = name; }); });
    ASSERT_TRUE(fixture.waitFor([&] { return !first.empty(); }, 20s));
    fixture.run([&] {
        other = fixture.viewer().publish(twin, fixture.queue, [&](const auto& name) { second = name; });
    });
    ASSERT_TRUE(fixture.waitFor([&] { return !second.empty(); }, 20s));
    EXPECT_EQ(first, "Jürgen’s Mac");
    EXPECT_EQ(second, "Jürgen’s Mac #2");
    fixture.run([&] { one.reset(), other.reset(); });
}

TYPED_TEST(ServiceDiscoveryContract, whatIsNotThereFailsAtTheLimitAndAnEndedRequestTellsNothing) {
    auto& fixture = this->fixture_;
    const ServiceDiscovery::ServiceName nobody{"nobody", "_velmora._udp", "local."};
    std::optional<Result<ServiceDiscovery::ResolvedService>> outcome;
    std::unique_ptr<ServiceDiscovery::Request> patient, ended;
    fixture.run([&] {
        ended = fixture.viewer().resolve(nobody, 100ms, fixture.queue,
                                         [](auto) { FAIL() << "told after its end"; });
        ended.reset();
        patient = fixture.viewer().resolve(nobody, 400ms, fixture.queue, [&](auto told) { outcome = told; });
    });
    ASSERT_TRUE(fixture.waitFor([&] { return outcome.has_value(); }, 5s));
    EXPECT_FALSE(outcome->ok());
    fixture.run([&] { patient.reset(); });
}

/// What the loop has still to tell then must not begin anything anew: the process would end.
TEST(ServiceDiscoveryTest, mayGoAsSoonAsItIsMade) {
    const auto comeAndGo = [] {
        busSocket();
        for (int i = 0; i < 100; ++i) AvahiServiceDiscovery one, other, third;
        std::_Exit(0);  // what is static stays: it is the parent's too
    };
    EXPECT_EXIT(comeAndGo(), testing::ExitedWithCode(0), "");
}

class OwnResponder : public testing::Test, protected EmbeddedFixture {
protected:
    void SetUp() override {
        if (!mayRun()) GTEST_SKIP() << "needs the right to make a network namespace";
    }
};

TEST_F(OwnResponder, anAddressThatComesLaterIsPublishedAndOneThatWentIsNot) {
    bool isPublished = false;
    std::string address;
    std::unique_ptr<ServiceDiscovery::Request> publish, resolve;
    const auto resolveAgain = [&] {
        address.clear();
        resolve = viewer().resolve({alpha.name, alpha.type, "local"}, 3s, queue, [&](auto outcome) {
            if (outcome) address = outcome->address;
        });
    };
    ASSERT_EQ(std::system("ip link set lo down"), 0);  // it would answer for this machine too
    run([&] { publish = host().publish(alpha, queue, [&](const auto&) { isPublished = true; }); });
    ASSERT_TRUE(waitFor([&] { return isPublished; }, 20s));
    ASSERT_EQ(std::system("ip addr add 10.98.0.1/24 dev v0 && ip addr del 10.99.0.1/24 dev v0"), 0);
    bool isFound = false;
    for (int i = 0; i < 8 && !isFound; ++i) {
        run(resolveAgain);
        isFound = waitFor([&] { return address == "10.98.0.1"; }, 3s);
    }
    EXPECT_TRUE(isFound) << address;
    run([&] { publish.reset(), resolve.reset(); });
    ASSERT_EQ(
        std::system(
            "ip link set lo up && ip addr add 10.99.0.1/24 dev v0 && ip addr del 10.98.0.1/24 dev v0 && "
            "ip route replace 224.0.0.0/4 dev v0"),
        0);
}

class AvahiDaemon : public testing::Test, protected DaemonFixture {
protected:
    void SetUp() override {
        if (!mayRun()) GTEST_SKIP() << "needs the right to make a network namespace";
        ASSERT_TRUE(isThere()) << DebugLog::shared().plainText();
    }
};

TEST_F(AvahiDaemon, aServiceIsPublishedAnewWhenTheDaemonGoesAndComesBack) {
    int published = 0;
    std::unique_ptr<ServiceDiscovery::Request> publish;
    run([&] { publish = host().publish(alpha, queue, [&](const auto&) { ++published; }); });
    auto publishedAgain = [&, last = 0]() mutable {
        if (!waitFor([&] { return published > last; }, 20s)) return false;
        waitFor([] { return false; }, 3s);  // a stack that starts late may still take over
        run([&] { last = published; });
        return true;
    };
    ASSERT_TRUE(publishedAgain());
    daemon.reset();
    ASSERT_TRUE(publishedAgain()) << "by the responder of its own";
    startDaemon();
    ASSERT_TRUE(publishedAgain()) << "by the daemon again";
    run([&] { publish.reset(); });
}

}  // namespace
}  // namespace velmora
