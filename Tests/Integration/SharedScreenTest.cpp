// A whole host and a whole viewer in one process, over a simulated link and in virtual time: what a person
// at the viewer gets to see of the host's screen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Host/StreamServer.h"
#include "Host/StreamSession.h"
#include "Testing/FakeCursorSource.h"
#include "Testing/FakeDisplays.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeScreenCapture.h"
#include "Testing/FakeTextFocusSource.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Kind = ConnectionError::Kind;

class SilentDiscovery final : public ServiceDiscovery {
public:
    std::unique_ptr<Request> publish(const Service&, Queue&,
                                     std::function<void(const std::string&)>) override {
        return nullptr;
    }
    std::unique_ptr<Request> browse(const std::string&, Queue&,
                                    std::function<void(std::vector<FoundService>)>) override {
        return nullptr;
    }
    std::unique_ptr<Request> resolve(const ServiceName&, std::chrono::milliseconds, Queue&,
                                     std::function<void(Result<ResolvedService>)>) override {
        return nullptr;
    }
};

class SilentKeepAwake final : public KeepAwake {
public:
    std::unique_ptr<Assertion> preventIdleSystemSleep(const std::string&, Outcome) override {
        return nullptr;
    }
    std::unique_ptr<Assertion> preventIdleDisplaySleep(const std::string&, Outcome) override {
        return nullptr;
    }
    void declareUserActivity(const std::string&) override {}
    std::unique_ptr<Assertion> beginActivity(const std::string&) override { return nullptr; }
};

class SilentPath final : public PathMonitor {
public:
    std::unique_ptr<Request> currentPath(std::function<void(PathKind)>) override { return nullptr; }
};

struct RecordedInput final : InputReceiver {
    explicit RecordedInput(std::vector<InputEvent>& seen) : seen(seen) {}
    void setDisplay(DisplayId) override {}
    void handle(const InputEvent& event) override { seen.push_back(event); }
    void releaseAll() override {}
    std::vector<InputEvent>& seen;
};

/// One person's viewer.
struct Seat {
    std::unique_ptr<ViewerConnection> connection;
    FakePreferenceStore preferences;
    std::vector<ConnectionError> ends;
    std::vector<HostClock::time_point> changes;  // when each new picture was there
    int repeats = 0;
    std::vector<ViewerStats::Snapshot> stats;
};

class SharedScreenTest : public testing::Test {
protected:
    static constexpr PixelSize size{160, 96};
    static constexpr PixelRect whole{0, 0, 160, 96};

    SharedScreenTest() {
        displays.set({{.id = 1, .name = "DP-1", .bounds = whole, .pixels = size}});
        screen.setDisplay(1, size);
        server = std::make_unique<StreamServer>(
            StreamServer::Services{
                .main = main,
                .quic = quic,
                .transport = link,
                .discovery = discovery,
                .keepAwake = keepAwake,
                .machine = machine,
                .loadCertificate = [] { return certificate(); },
                .machineKind = [] { return MacKind::mac; },
                .makeSession = [this](AdmittedViewer viewer) { return makeSession(std::move(viewer)); }},
            ServerSettings{});
        server->identity = [] { return HostCredentials{"123456789", "042137"}; };
        server->start();
        run(100ms);
    }
    ~SharedScreenTest() override {
        for (auto& seat : seats) seat->connection.reset();
        run(1s);
        server.reset();
        run(1s);
    }

    static Result<HostIdentityCertificate, KeyStore::Lack> certificate() {
        return HostIdentityCertificate{{.certificate = bytesOf("AB01"), .privateKey = {1}}, "AB01"};
    }
    std::unique_ptr<HostSession> makeSession(AdmittedViewer viewer) {
        return std::make_unique<StreamSession>(
            std::move(viewer), StreamSession::Services{.main = main,
                                                       .capture = capture,
                                                       .display = display,
                                                       .input = input,
                                                       .keepAwake = keepAwake,
                                                       .displays = displays,
                                                       .captures = screen,
                                                       .compressors = compressors,
                                                       .cursor = cursor,
                                                       .textFocus = textFocus,
                                                       .makeInput =
                                                           [this](const InputReceiverOptions&) {
                                                               return std::make_unique<RecordedInput>(inputs);
                                                           },
                                                       .cpuPercent = [] { return 12.5; }});
    }
    Seat& sitDown(const std::string& password = "042137") {
        Seat& seat = *seats.emplace_back(std::make_unique<Seat>());
        seat.connection =
            std::make_unique<ViewerConnection>(ViewerOptions{.target = Endpoint::hostPort("10.0.0.5", 47272),
                                                             .name = "Desk",
                                                             .password = password,
                                                             .clientName = "Couch"},
                                               ViewerConnection::Services{.transport = link,
                                                                          .preferences = seat.preferences,
                                                                          .paths = path,
                                                                          .decompressors = decompressors},
                                               main, client);
        seat.connection->onEnded = [&seat](const ConnectionError& error) { seat.ends.push_back(error); };
        seat.connection->onDecodedFrame = [this, &seat](const DecodedFrame& frame) {
            if (frame.isChange) {
                seat.changes.push_back(time.now());
            } else {
                ++seat.repeats;
            }
        };
        seat.connection->onStats = [&seat](const ViewerStats::Snapshot& s) { seat.stats.push_back(s); };
        seat.connection->start(std::nullopt);
        return seat;
    }
    void run(HostClock::duration span) { time.advanceBy(span); }

    /// The screen is filled with another grey every 1/60 s; none comes twice within four seconds.
    void moveFor(HostClock::duration span) {
        for (const auto end = time.now() + span; time.now() < end; run(16'667us)) {
            paintedGrey = static_cast<std::uint8_t>(paintedGrey >= 250 ? 1 : paintedGrey + 1);
            screen.paint(1, whole, paintedGrey);
        }
    }
    /// Every 1/60 s much of the screen changes, in a way that takes many bits.
    void paintNoiseFor(HostClock::duration span) {
        for (const auto end = time.now() + span; time.now() < end; run(16'667us)) {
            for (int i = 0; i < 120; ++i) {
                screen.paint(1, {static_cast<int>(random() % 464), static_cast<int>(random() % 288), 16, 16},
                             static_cast<std::uint8_t>(random()));
            }
        }
    }
    /// Luma of the grey in the limited range that travels.
    static int lumaOf(std::uint8_t grey) { return static_cast<int>(std::lround(16 + grey * 219 / 255.0)); }
    static bool shows(const Seat& seat, std::uint8_t grey) {
        const auto image = seat.connection->lastImage();
        return image && std::abs(image->y[0] - lumaOf(grey)) <= 1 &&
               std::abs(image->y[static_cast<std::ptrdiff_t>(image->strideY) * (image->size.height - 1) +
                                 image->size.width - 1] -
                        lumaOf(grey)) <= 1;
    }
    /// The longest time without a new picture, from `since` to the last one.
    static HostClock::duration longestFreeze(const Seat& seat, HostClock::time_point since) {
        HostClock::duration longest{0};
        auto last = since;
        for (const auto change : seat.changes) {
            if (change < since) continue;
            longest = std::max(longest, change - last);
            last = change;
        }
        return longest;
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, quic{time, "velmora.quic"}, capture{time, "velmora.capture"},
        display{time, "velmora.display"}, input{time, "velmora.input"}, client{time, "velmora.quic.client"};
    SimulatedLink link{time};
    SilentDiscovery discovery;
    SilentKeepAwake keepAwake;
    SilentPath path;
    FakeMachineInfo machine;
    FakeDisplays displays;
    FakeScreen screen;
    FakeVideoCompressorFactory compressors;
    FakeCursorSource cursor{main};
    FakeTextFocusSource textFocus{main};
    FakeVideoDecompressorFactory decompressors;
    std::vector<InputEvent> inputs;
    std::unique_ptr<StreamServer> server;
    std::vector<std::unique_ptr<Seat>> seats;
    std::uint8_t paintedGrey = 0;
    std::mt19937 random{7};
};

TEST_F(SharedScreenTest, aViewerSeesTheScreenAndItsChanges) {
    screen.paint(1, whole, 200);
    Seat& seat = sitDown();
    run(300ms);
    EXPECT_TRUE(shows(seat, 200));
    screen.paint(1, whole, 40);
    run(30ms);
    EXPECT_TRUE(shows(seat, 40));

    seat.connection->sendInput({.kind = InputEvent::Kind::mouseMove, .x = 0.5, .y = 0.25});
    run(30ms);
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(inputs[0].y, 0.25);
}

TEST_F(SharedScreenTest, aStillScreenIsSilentAndItsRepeatsAreNoChanges) {
    Seat& seat = sitDown();
    run(2s);
    const auto changes = seat.changes.size();
    const int repeats = seat.repeats;
    run(10s);
    EXPECT_EQ(seat.changes.size(), changes);
    EXPECT_EQ(seat.repeats, repeats);
    screen.paint(1, {10, 10, 20, 20}, 99);
    run(1s);
    EXPECT_EQ(seat.changes.size(), changes + 1);
    EXPECT_GE(seat.repeats, repeats + 2);
    EXPECT_LE(seat.repeats, repeats + 12);
}

TEST_F(SharedScreenTest, theWrongPasswordAndASecondViewerAreTurnedAway) {
    Seat& wrong = sitDown("000000");
    run(2s);
    EXPECT_EQ(wrong.ends, std::vector{ConnectionError::wrongPassword("Desk")});
    Seat& first = sitDown();
    run(500ms);
    Seat& second = sitDown();
    run(2s);
    EXPECT_EQ(second.ends, std::vector{ConnectionError::busy("Desk")});
    EXPECT_TRUE(first.connection->isStreaming());
    first.connection->close();
    run(1s);
    Seat& third = sitDown();
    run(500ms);
    EXPECT_TRUE(third.connection->isStreaming());
}

TEST_F(SharedScreenTest, theHostsGoodbyeIsTold) {
    Seat& seat = sitDown();
    run(500ms);
    server->disconnect();
    run(2s);
    EXPECT_EQ(seat.ends, std::vector{ConnectionError::endedByHost("Desk")});
}

TEST_F(SharedScreenTest, aLastChangeThatWasWhollyLostStillArrives) {
    Seat& seat = sitDown();
    run(2s);
    link.toConnector.dropsDatagram = [](ByteView) { return true; };
    screen.paint(1, whole, 180);
    run(35ms);
    link.toConnector.dropsDatagram = nullptr;
    EXPECT_FALSE(shows(seat, 180));
    run(400ms);
    EXPECT_TRUE(shows(seat, 180));
}

TEST_F(SharedScreenTest, aLossyLinkNeverFreezesThePicture) {
    link.setConditions({.delay = 20ms, .jitter = 2ms, .loss = 0.02});
    Seat& seat = sitDown();
    run(2s);
    ASSERT_TRUE(seat.connection->isStreaming());
    const auto begin = time.now();
    moveFor(60s);
    EXPECT_LT(longestFreeze(seat, begin), 500ms);
    EXPECT_GT(seat.changes.size(), 60u * 30);
    run(500ms);
    EXPECT_TRUE(shows(seat, paintedGrey));
}

TEST_F(SharedScreenTest, aLinkThatNarrowsIsFollowedWithinSeconds) {
    constexpr PixelSize large{480, 304};
    displays.set({{.id = 1, .name = "DP-1", .bounds = {0, 0, 480, 304}, .pixels = large}});
    screen.setDisplay(1, large);
    link.setConditions({.delay = 5ms, .bitsPerSecond = 20'000'000});
    Seat& seat = sitDown();
    run(1s);
    paintNoiseFor(5s);
    EXPECT_LT(seat.stats.back().networkP95.value_or(1e9), 60);
    EXPECT_GT(seat.stats.back().frames, 50);
    link.setConditions({.delay = 5ms, .bitsPerSecond = 4'000'000});
    paintNoiseFor(4s);  // three, and one for the last second's figures
    for (int second = 0; second < 4; ++second) {
        EXPECT_LT(seat.stats.back().networkP95.value_or(1e9), 150);
        EXPECT_GT(seat.stats.back().frames, 30);
        paintNoiseFor(1s);
    }
}

class OutageTest : public SharedScreenTest, public testing::WithParamInterface<std::chrono::seconds> {};

TEST_P(OutageTest, thePictureIsLiveSoonAfterTheLinkIsBack) {
    link.setConditions({.delay = 20ms});
    Seat& seat = sitDown();
    run(1s);
    moveFor(3s);
    link.cut();
    moveFor(GetParam());
    link.restore();
    const auto back = time.now();
    std::optional<HostClock::time_point> live;
    for (int i = 0; i < 120 && !live; ++i) {
        moveFor(16ms);
        // What was painted within the last 150 ms counts as live.
        for (int steps = 0; steps < 9 && !live; ++steps) {
            if (shows(seat, static_cast<std::uint8_t>(paintedGrey - steps))) live = time.now();
        }
    }
    ASSERT_TRUE(live);
    EXPECT_LT(*live - back, 600ms);
    EXPECT_TRUE(seat.ends.empty());
}

INSTANTIATE_TEST_SUITE_P(OneAndThreeSeconds, OutageTest, testing::Values(1s, 3s));

}  // namespace
}  // namespace velmora
