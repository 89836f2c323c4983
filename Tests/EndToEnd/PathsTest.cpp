#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <optional>

#include "Testing/XInputWindow.h"
#include "Tests/EndToEnd/EndToEndTest.h"
#include "Tests/EndToEnd/HomeNetworks.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// A host and an agent that find each other by Host ID alone, with routers between them.
class Paths : public EndToEndTest {
protected:
    using Place = HomeNetworks::Place;

    void begin(HomeNetworks::Options options = {}) {
        homes.emplace(options);
        if (!homes->areAllowed()) GTEST_SKIP() << "network namespaces need root: " << homes->error();
        ASSERT_EQ(homes->error(), "");
        ASSERT_NO_FATAL_FAILURE(startServer());
        const std::string address = HomeNetworks::serverAddress;
        service = launch(
            Place::server,
            {RENDEZVOUS_PROGRAM, "--plain", "--listen", address + ":8080", "--public-address", address},
            {.home = homeOf("service")});
        host =
            launch(Place::host, {VELMORA_PROGRAM}, {.home = homeOf("host"), .display = server().display()});
        ASSERT_TRUE(host->says("waiting for a viewer", 1, within(20))) << host->said();
        readHostLine(*host);
        const auto isOnline = [&] {
            return contentOf(homeOf("host") / "state/velmora/velmora.log").find("Online at") !=
                   std::string::npos;
        };
        ASSERT_TRUE(eventually(isOnline, within(20)));
        agent =
            launch(Place::viewer, {VELMORA_PROGRAM, "mcp"}, {.home = homeOf("agent"), .takesLines = true});
    }
    std::unique_ptr<RunningProgram> launch(Place place, const std::vector<std::string>& command,
                                           RunningProgram::Place device) {
        device.rendezvous = fmt::format("ws://{}:8080", HomeNetworks::serverAddress);
        return std::make_unique<RunningProgram>(homes->at(place, command), device);
    }
    void call(const std::string& tool, const std::string& arguments = "{}") {
        agent->tell(fmt::format(
            R"({{"jsonrpc":"2.0","id":{},"method":"tools/call","params":{{"name":"{}","arguments":{}}}}})",
            ++calls, tool, arguments));
    }
    void connect() {
        asked = std::chrono::steady_clock::now();
        call("connect", fmt::format(R"({{"host_id":"{}","password":"{}"}})", hostId(), password));
    }
    /// The agent says so, and its picture is that of the host.
    bool isConnectedVia(const std::string& path) {
        const std::string words = fmt::format("Connected to {} via {}, screen 1280×800", hostId(), path);
        if (!agent->says(words, 1, within(20))) return false;
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - asked;
        std::cout << fmt::format("{}: first picture after {:.2f} s\n", path, taken.count());
        call("screenshot");
        return agent->says(
            R"("mimeType":"image/jpeg"},{"type":"text","text":"1280×800 px"}],"isError":false)", 1,
            within(20));
    }

    /// A viewer that stays and does what it is told.
    std::unique_ptr<RunningProgram> watchById() {
        return launch(Place::viewer,
                      {LOOK_PROGRAM, hostId(), "--password", password, "--script", "-", "--log"},
                      {.home = homeOf("viewer"), .takesLines = true});
    }
    static constexpr std::uint32_t green = 0x00FF00;
    /// What the viewer shows.
    bool isGreen(RunningProgram& viewer) const {
        const auto file = folder_.path() / "shown.png";
        const auto shown = does(viewer, "png " + file.string()) ? readPng(file) : std::nullopt;
        const std::uint32_t pixel = shown ? shown->pixels.at(shown->pixels.size() / 2) : 0;
        return (pixel >> 8 & 255) > 200 && (pixel & 255) < 50;
    }

    std::optional<HomeNetworks> homes;
    std::unique_ptr<RunningProgram> service, host, agent;
    int calls = 0;
    std::chrono::steady_clock::time_point asked;
};

TEST_F(Paths, atOneHomeTheLocalOneIsTaken) {
    ASSERT_NO_FATAL_FAILURE(begin({.oneHome = true}));
    if (IsSkipped()) return;
    connect();
    EXPECT_TRUE(isConnectedVia("LAN")) << agent->said();
}

TEST_F(Paths, betweenTwoHomesBothRoutersAreOpened) {
    ASSERT_NO_FATAL_FAILURE(begin());
    if (IsSkipped()) return;
    connect();
    EXPECT_TRUE(isConnectedVia("Direct")) << agent->said();
}

TEST_F(Paths, alongADistantLineThatLosesPacketsPictureAndClickArrive) {
    ASSERT_NO_FATAL_FAILURE(begin({.viewersLine = LinkPipe::Direction{.delay = 20ms, .loss = 0.02}}));
    if (IsSkipped()) return;
    const auto viewer = watchById();
    ASSERT_TRUE(does(*viewer, "wait 0")) << viewer->said();
    screen().fill(display(), green);
    EXPECT_TRUE(eventually([&] { return isGreen(*viewer); }, within(20))) << viewer->said();

    XInputWindow window(server().display());
    ASSERT_TRUE(window.ok());
    EXPECT_TRUE(does(*viewer, "click 640 401"));
    const auto isClicked = [](const auto& events) {
        return std::ranges::any_of(events, [](const auto& event) {
            return event.kind == XInputWindow::Event::Kind::buttonUp && event.x == 640 && event.y == 401;
        });
    };
    EXPECT_TRUE(window.waitUntil(isClicked));
}

TEST_F(Paths, goesOnWhenTheViewersRouterTakesAnotherPort) {
    ASSERT_NO_FATAL_FAILURE(begin({.openHost = true}));
    if (IsSkipped()) return;
    const auto viewer = watchById();
    ASSERT_TRUE(does(*viewer, "wait 0"));
    EXPECT_TRUE(viewer->says("QUIC connected via Direct"));
    homes->moveViewersPorts();
    ASSERT_EQ(homes->error(), "");

    screen().fill(display(), green);  // once, and on its way before the host knows where to
    EXPECT_TRUE(eventually([&] { return isGreen(*viewer); }, within(20)));
    EXPECT_TRUE(viewer->isRunning());
}

TEST_F(Paths, aHostsRouterThatTakesTheNewPortForAStrangersIsOpenedOnceMore) {
    ASSERT_NO_FATAL_FAILURE(begin());
    if (IsSkipped()) return;
    const auto viewer = watchById();
    ASSERT_TRUE(does(*viewer, "wait 0"));
    homes->forgetViewersPorts();
    ASSERT_EQ(homes->error(), "");
    screen().fill(display(), green);  // into the void
    EXPECT_TRUE(
        viewer->says("Nothing heard from the host; our public address: 203.0.113.2:4", 1, within(20)));
    EXPECT_TRUE(eventually([&] { return isGreen(*viewer); }, within(20))) << viewer->said();
}

TEST_F(Paths, theRelayGoesOnWhenTheViewersRouterTakesAnotherPort) {
    ASSERT_NO_FATAL_FAILURE(begin());
    if (IsSkipped()) return;
    homes->blockDirectPaths();
    const auto viewer = watchById();
    ASSERT_TRUE(does(*viewer, "wait 0"));
    EXPECT_TRUE(viewer->says("QUIC connected via Relay"));
    homes->forgetViewersPorts();
    ASSERT_EQ(homes->error(), "");
    screen().fill(display(), green);  // into the void
    EXPECT_TRUE(viewer->says("Nothing heard by way of the relay", 1, within(20)));
    EXPECT_TRUE(eventually([&] { return isGreen(*viewer); }, within(20))) << viewer->said();
}

TEST_F(Paths, theRelayServesWhereNothingElseDoes) {
    ASSERT_NO_FATAL_FAILURE(begin());
    if (IsSkipped()) return;
    homes->blockDirectPaths();
    ASSERT_EQ(homes->error(), "");
    connect();
    EXPECT_TRUE(isConnectedVia("Relay")) << agent->said();

    service.reset();  // and the relay with it
    EXPECT_TRUE(agent->says("Connection ended: ", 1, within(40)));
    call("status");
    EXPECT_TRUE(
        agent->says(fmt::format(R"("text":"Disconnected from {0}: Connection to {0} lost)", hostId())))
        << agent->said();
}

}  // namespace
}  // namespace velmora
