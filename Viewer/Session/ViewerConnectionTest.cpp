#include "Viewer/Session/ViewerConnection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Shared/Preferences.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScriptedHost.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using Kind = ConnectionError::Kind;

/// Tells the kind of path that the test has chosen.
class ChosenPath final : public PathMonitor {
public:
    explicit ChosenPath(Queue& main) : main_(main) {}
    PathKind kind;
    int asked = 0;

    std::unique_ptr<Request> currentPath(std::function<void(PathKind)> onPath) override {
        ++asked;
        auto request = std::make_unique<Pending>();
        main_.post(request->alive.guard([this, onPath = std::move(onPath)] { onPath(kind); }));
        return request;
    }

private:
    struct Pending final : Request {
        Liveness alive;
    };
    Queue& main_;
};

/// A second rung that the test climbs itself.
class ScriptedRendezvous final : public RendezvousPath {
public:
    struct Record {
        Ladder* ladder = nullptr;
        std::vector<std::string> started;
        int hangUps = 0, directReopenings = 0, relayReopenings = 0;
    };
    ScriptedRendezvous(Ladder& ladder, Record& record) : record_(record) { record_.ladder = &ladder; }
    void start(const std::string& hostID) override { record_.started.push_back(hostID); }
    void reopenDirect() override { ++record_.directReopenings; }
    void reopenRelay() override { ++record_.relayReopenings; }
    void hangUp() override { ++record_.hangUps; }

private:
    Record& record_;
};

class ViewerConnectionTest : public testing::Test {
protected:
    ViewerConnectionTest() {
        DebugLog::shared().clear();
        time.settle();
    }
    ~ViewerConnectionTest() override {
        viewer.reset();
        time.settle();
    }

    ViewerOptions toEndpoint() {
        return {.target = lan, .name = "Desk", .password = "123456", .clientName = "Couch"};
    }
    /// Known by Host ID, seen on this network, and trusted since the service told its fingerprint.
    ViewerOptions toKnownHostId() {
        preferences.set(PreferenceKeys::hostFingerprint("123456789"), std::string("AB01"));
        return {.target = RemoteDevices::HostId{"123456789"},
                .name = "Desk",
                .password = "123456",
                .lanEndpoint = lan,
                .fingerprint = "AB01",
                .clientName = "Couch"};
    }
    void connect(ViewerOptions options, std::optional<DisplayRequest> request = std::nullopt) {
        ViewerConnection::Services services{
            .transport = link,
            .preferences = preferences,
            .paths = path,
            .decompressors = decompressors,
            .saveSnapshot = [this](const SharedPicture&, const std::string& name) {
                snapshots.push_back(name);
            }};
        if (hasRendezvous) {
            services.makeRendezvousPath = [this](RendezvousPath::Ladder& ladder) {
                return std::make_unique<ScriptedRendezvous>(ladder, rendezvous);
            };
        }
        viewer = std::make_unique<ViewerConnection>(std::move(options), std::move(services), main, client);
        viewer->onStatus = [this](ViewerConnection::Status) { ++statuses; };
        viewer->onEnded = [this](const ConnectionError& error) { ends.push_back(error); };
        viewer->onStreamChanged = [this](PixelSize size, bool) { sizes.push_back(size); };
        viewer->onStats = [this](const ViewerStats::Snapshot& snapshot) { stats.push_back(snapshot); };
        viewer->onDecodedFrame = [this](const DecodedFrame& frame) { frames.push_back(frame.isChange); };
        viewer->start(request);
    }
    /// Connected, greeted, and showing.
    void stream(ViewerOptions options) {
        connect(std::move(options));
        run(50ms);
        host->startStream({64, 48});
        host->sendKeyframe();
        run(50ms);
        ASSERT_TRUE(viewer->isStreaming());
        ASSERT_EQ(frames.size(), 1u);
    }
    /// The same with the attempt of this label alone.
    void streamThroughRendezvous(const std::string& label) {
        auto options = toKnownHostId();
        options.lanEndpoint.reset();
        connect(options);
        run(100ms);
        rendezvous.ladder->attempt({label, lan, "AB01", 50123});
        run(100ms);
        host->startStream({64, 48});
    }
    void run(HostClock::duration span) { time.advanceBy(span); }

    static std::vector<std::string> logged() {
        std::vector<std::string> lines;
        for (const auto& entry : DebugLog::shared().entries()) lines.push_back(entry.text);
        return lines;
    }
    Kind endKind() const {
        EXPECT_EQ(ends.size(), 1u);
        return ends.empty() ? Kind::other : ends.front().kind;
    }
    std::int64_t lastHint() const {
        const auto hint = BitrateHint::decode(host->lastOf(MessageType::bitrateHint));
        return hint ? hint->maxMbps : -1;
    }

    const Endpoint lan = Endpoint::hostPort("10.0.0.5", 47272);
    VirtualTime time;
    VirtualQueue main{time, "main"};
    VirtualQueue client{time, "velmora.quic.client"};
    VirtualQueue hostQueue{time, "host"};
    SimulatedLink link{time};
    FakePreferenceStore preferences;
    ChosenPath path{main};
    FakeVideoDecompressorFactory decompressors;
    bool hasRendezvous = true;
    ScriptedRendezvous::Record rendezvous;
    std::optional<ScriptedHost> host{std::in_place, link, hostQueue, ScriptedHost::Options{}};
    std::unique_ptr<ViewerConnection> viewer;

    int statuses = 0;
    std::vector<ConnectionError> ends;
    std::vector<PixelSize> sizes;
    std::vector<ViewerStats::Snapshot> stats;
    std::vector<bool> frames;  // whether each was a change
    std::vector<std::string> snapshots;
};

// The ladder

TEST_F(ViewerConnectionTest, saysHelloOnTheFirstStream) {
    connect(toEndpoint());
    run(50ms);

    const auto hello = host->hello();
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->name, "Couch");
    EXPECT_EQ(hello->protocolVersion, 5);
    EXPECT_EQ(hello->display, std::nullopt);
    EXPECT_EQ(hello->password, "123456");
    EXPECT_EQ(hello->sessionToken, std::nullopt);
    EXPECT_EQ(hello->audio, false);
    EXPECT_EQ(hello->agent, std::nullopt);
    EXPECT_EQ(hello->deviceID, preferences.string(PreferenceKeys::deviceID));
    EXPECT_EQ(host->received.front().type, MessageType::hello);
    EXPECT_TRUE(host->hasFlow());
    EXPECT_EQ(viewer->pathLabel(), "LAN");
    EXPECT_EQ(statuses, 1);
    EXPECT_THAT(
        logged(),
        testing::ElementsAre("Connecting to “Desk” (10.0.0.5:47272) over QUIC, screen: server's own display…",
                             "First connection to Desk: remembering its certificate AB01…",
                             "QUIC connected via LAN 10.0.0.5:47272 (encrypted, host certificate verified)",
                             HasSubstr("QUIC video datagrams ready"), HasSubstr("Connected via "),
                             "Sending hello: server's own display, protocol v5"));
}

TEST_F(ViewerConnectionTest, aHelloTellsWindowAndAgent) {
    auto options = toEndpoint();
    options.agent = true;
    connect(std::move(options), DisplayRequest{.width = 1200, .height = 800, .scale = 2});
    run(50ms);
    EXPECT_EQ(host->hello()->display, (DisplayRequest{1200, 800, 2}));
    EXPECT_EQ(host->hello()->agent, true);
    EXPECT_THAT(logged(), Contains("Sending hello: window 1200×800 pt @2x, protocol v5"));
    EXPECT_THAT(logged(), Contains(HasSubstr("screen: match this window…")));
}

TEST_F(ViewerConnectionTest, theDeviceKeepsItsName) {
    const std::string first = ViewerConnection::deviceIDIn(preferences);
    EXPECT_EQ(first.size(), 36u);
    EXPECT_EQ(ViewerConnection::deviceIDIn(preferences), first);
    FakePreferenceStore others;
    EXPECT_NE(ViewerConnection::deviceIDIn(others), first);
}

TEST_F(ViewerConnectionTest, aKnownCertificateIsTakenSilentlyAndAChangedOneRefused) {
    preferences.set(PreferenceKeys::knownHost("10.0.0.5:47272"), std::string("AB01"));
    connect(toEndpoint());
    run(50ms);
    EXPECT_TRUE(host->hello());
    EXPECT_THAT(logged(), Not(Contains(HasSubstr("First connection"))));

    viewer.reset();
    run(5s);
    host.reset();
    host.emplace(link, hostQueue, ScriptedHost::Options{.fingerprint = "CD02"});
    connect(toEndpoint());
    run(10s);
    EXPECT_EQ(ends, std::vector{ConnectionError::unreachable("Desk")});
    EXPECT_FALSE(host->hello());
    EXPECT_THAT(logged(),
                Contains("⚠︎ Desk presented a different certificate than last time; refusing. If it was "
                         "reinstalled, remove and add it again."));
    EXPECT_EQ(preferences.string(PreferenceKeys::knownHost("10.0.0.5:47272")), "AB01");
}

TEST_F(ViewerConnectionTest, aPinnedFingerprintIsNotRememberedByPlace) {
    auto options = toEndpoint();
    options.fingerprint = "AB01";
    connect(std::move(options));
    run(50ms);
    EXPECT_TRUE(host->hello());
    EXPECT_EQ(preferences.string(PreferenceKeys::knownHost("10.0.0.5:47272")), std::nullopt);
}

TEST_F(ViewerConnectionTest, aPlaceThatDoesNotAnswerIsUnreachableAfterEightSeconds) {
    host.reset();
    connect(toEndpoint());
    run(7900ms);
    EXPECT_TRUE(ends.empty());
    run(200ms);
    EXPECT_EQ(endKind(), Kind::unreachable);
    EXPECT_THAT(logged(), Contains(HasSubstr("Connection ended: Can't reach Desk. No network path to Desk")));
    run(60s);
    EXPECT_EQ(ends.size(), 1u);
}

TEST_F(ViewerConnectionTest, aKnownHostIdIsTriedOnThisNetworkFirst) {
    connect(toKnownHostId());
    run(50ms);
    EXPECT_TRUE(host->hello());
    EXPECT_TRUE(rendezvous.started.empty());
    EXPECT_THAT(logged(),
                Contains("Connecting to “Desk” on this network (10.0.0.5:47272), screen: server's own "
                         "display…"));
}

TEST_F(ViewerConnectionTest, onlyWhatTheServiceToldIsTrustedOnThisNetwork) {
    auto options = toKnownHostId();
    preferences.set(PreferenceKeys::hostFingerprint("123456789"), std::string("EF03"));
    connect(options);
    run(1s);
    EXPECT_EQ(rendezvous.started, std::vector<std::string>{"123456789"});
    EXPECT_EQ(host->connections, 0);
    EXPECT_THAT(logged(),
                Contains("Connecting to “Desk” by Host ID 123 456 789 through Velmora Cloud, screen: "
                         "server's own display…"));
}

TEST_F(ViewerConnectionTest, aFailedLocalTryGoesOnThroughTheService) {
    auto options = toKnownHostId();
    host.reset();
    connect(options);
    run(7s);
    EXPECT_TRUE(rendezvous.started.empty());
    run(2s);
    EXPECT_EQ(rendezvous.started.size(), 1u);
    EXPECT_THAT(logged(),
                Contains("⚠︎ Local connection failed (no answer within 8 s. Make sure Velmora is running "
                         "on it and both devices are on the same network.); trying through Velmora "
                         "Cloud"));
    EXPECT_EQ(rendezvous.ladder->attemptedLabels(), "");
    run(18s);
    EXPECT_TRUE(ends.empty());
    run(2s);  // 20 s since the service was asked
    EXPECT_EQ(endKind(), Kind::offline);
    EXPECT_EQ(rendezvous.hangUps, 1);
    EXPECT_THAT(logged(), Contains("⚠︎ No connection after 20 s; giving up"));
}

TEST_F(ViewerConnectionTest, anEarlyLocalFailureIsReportedOnce) {
    auto options = toKnownHostId();
    host.reset();
    host.emplace(link, hostQueue, ScriptedHost::Options{.fingerprint = "CD02"});
    connect(options);
    run(9s);  // past the limit of the local try
    EXPECT_EQ(rendezvous.started.size(), 1u);
    EXPECT_TRUE(ends.empty());
}

TEST_F(ViewerConnectionTest, attemptsOfTheServiceRaceAndTheTokenStandsForThePassword) {
    auto options = toKnownHostId();
    options.lanEndpoint.reset();
    path.kind = {};
    connect(options);
    run(100ms);
    rendezvous.ladder->setSessionToken("token");
    rendezvous.ladder->attempt({"LAN 10.0.0.99:1", Endpoint::hostPort("10.0.0.99", 1), "AB01", std::nullopt});
    rendezvous.ladder->attempt({"Relay", lan, "AB01", 50123});
    EXPECT_EQ(rendezvous.ladder->attemptedLabels(), "LAN 10.0.0.99:1, Relay");
    EXPECT_FALSE(rendezvous.ladder->hasWinner());
    run(100ms);
    EXPECT_TRUE(rendezvous.ladder->hasWinner());
    EXPECT_EQ(viewer->pathLabel(), "Relay");
    ASSERT_TRUE(host->hello());
    EXPECT_EQ(host->hello()->sessionToken, "token");
    EXPECT_EQ(host->hello()->password, std::nullopt);
    EXPECT_THAT(logged(), Contains("Sending hello: server's own display, protocol v5, with session token"));
    // A relay is somebody's money.
    EXPECT_EQ(lastHint(), 6);
    EXPECT_THAT(logged(), Contains("Connection is relay: asking the host for at most 6 Mbit/s"));
    rendezvous.ladder->attempt({"LAN 10.0.0.5:47272", lan, "AB01", std::nullopt});
    run(100ms);
    EXPECT_EQ(viewer->pathLabel(), "Relay");  // too late
    host->startStream({64, 48});
    run(30s);
    EXPECT_TRUE(ends.empty());  // none of the ladder's limits concerns a session
}

TEST_F(ViewerConnectionTest, aDirectPathThatFallsSilentIsOpenedOnceMore) {
    streamThroughRendezvous("Direct 10.0.0.5:47272");
    run(4s);  // nothing moves, but the host answers each ping
    EXPECT_EQ(rendezvous.directReopenings, 0);
    link.cut();
    run(3100ms);
    EXPECT_EQ(rendezvous.directReopenings, 1);
    run(40s);
    EXPECT_EQ(rendezvous.directReopenings, 1);
    EXPECT_EQ(rendezvous.relayReopenings, 0);
    EXPECT_EQ(endKind(), Kind::connectionLost);
}

TEST_F(ViewerConnectionTest, aRelayThatFallsSilentIsAskedAgainAndAgain) {
    streamThroughRendezvous("Relay");
    run(4s);
    EXPECT_EQ(rendezvous.relayReopenings, 0);
    link.cut();
    run(3100ms);
    EXPECT_EQ(rendezvous.relayReopenings, 1);
    run(4s);
    EXPECT_EQ(rendezvous.relayReopenings, 3);
    link.restore();
    run(2s);
    const int reopenings = rendezvous.relayReopenings;
    run(20s);
    EXPECT_EQ(rendezvous.relayReopenings, reopenings);
    EXPECT_EQ(rendezvous.directReopenings, 0);
    EXPECT_TRUE(ends.empty());
}

TEST_F(ViewerConnectionTest, aHostIdNeedsAPasswordForTheService) {
    auto options = toKnownHostId();
    options.lanEndpoint.reset();
    options.password.reset();
    connect(options);
    EXPECT_TRUE(ends.empty());  // never from inside `start`
    run(1ms);
    EXPECT_EQ(ends, std::vector{ConnectionError::noSavedPassword("Desk")});
    EXPECT_TRUE(rendezvous.started.empty());
}

TEST_F(ViewerConnectionTest, withoutAWayToTheServiceThereIsNoInternet) {
    hasRendezvous = false;
    auto options = toKnownHostId();
    options.lanEndpoint.reset();
    connect(options);
    run(1ms);
    EXPECT_EQ(endKind(), Kind::noInternet);
    EXPECT_THAT(logged(), Contains(HasSubstr("⚠︎ Can't reach Velmora Cloud: ")));
}

// The end

TEST_F(ViewerConnectionTest, aHostThatClosesBeforeAStreamIsUnreachableAndLaterHasEndedIt) {
    connect(toEndpoint());
    run(50ms);
    host->endConnection();
    run(1s);
    EXPECT_EQ(endKind(), Kind::unreachable);
    EXPECT_THAT(logged(), Contains("Connection closed"));

    ends.clear();
    stream(toEndpoint());
    host->send(MessageType::bye);
    run(1s);
    EXPECT_EQ(ends, std::vector{ConnectionError::endedByHost("Desk")});
    EXPECT_EQ(snapshots, std::vector<std::string>{"Desk"});
    EXPECT_FALSE(viewer->isStreaming());
}

TEST_F(ViewerConnectionTest, aDeadLinkIsAConnectionLost) {
    stream(toEndpoint());
    link.cut();
    run(40s);
    EXPECT_EQ(ends, std::vector{ConnectionError::connectionLost("Desk")});
    EXPECT_THAT(logged(), Contains(HasSubstr("⚠︎ Connection failed: ")));
}

TEST_F(ViewerConnectionTest, aSessionThatIsLostIsNoFailedLocalTry) {
    stream(toKnownHostId());
    link.cut();
    run(40s);
    EXPECT_EQ(ends, std::vector{ConnectionError::connectionLost("Desk")});
    EXPECT_TRUE(rendezvous.started.empty());
}

TEST_F(ViewerConnectionTest, aDenialEndsItInItsOwnWords) {
    connect(toEndpoint());
    run(50ms);
    host->send(MessageType::denied, HostDenial::encode(HostDenial::wrongPassword, "Wrong password."));
    run(50ms);
    EXPECT_EQ(ends, std::vector{ConnectionError::wrongPassword("Desk")});
    EXPECT_THAT(logged(),
                Contains("⚠︎ Desk refused the connection: Wrong password. The password for Desk didn't "
                         "match."));
    host->endConnection();
    run(1s);
    EXPECT_EQ(ends.size(), 1u);
}

TEST_F(ViewerConnectionTest, aDenialMayBeBareText) {
    connect(toEndpoint());
    run(50ms);
    host->send(MessageType::denied, viewOf("Not \xFF today"));
    run(50ms);
    EXPECT_EQ(ends, std::vector{ConnectionError::other("Desk", "Not � today")});
}

TEST_F(ViewerConnectionTest, closingSaysByeAndTellsNobody) {
    stream(toEndpoint());
    viewer->close();
    viewer->sendInput({});
    run(1s);
    EXPECT_EQ(host->countOf(MessageType::bye), 1);
    EXPECT_EQ(host->countOf(MessageType::input), 0);
    EXPECT_TRUE(ends.empty());
    EXPECT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(viewer->lastImage(), nullptr);
    run(5s);
    EXPECT_TRUE(stats.empty());
    EXPECT_THAT(logged(), Not(Contains(HasSubstr("Connection ended"))));
}

TEST_F(ViewerConnectionTest, anyCallbackMayDestroyTheConnection) {
    connect(toEndpoint());
    viewer->onStatus = [this](ViewerConnection::Status) { viewer.reset(); };
    run(1s);
    EXPECT_FALSE(viewer);

    stream(toEndpoint());
    viewer->onStats = [this](const ViewerStats::Snapshot&) { viewer.reset(); };
    run(2s);
    EXPECT_FALSE(viewer);

    frames.clear();
    stream(toEndpoint());
    viewer->onEnded = [this](const ConnectionError&) { viewer.reset(); };
    host->endConnection();
    run(1s);
    EXPECT_FALSE(viewer);
}

// The stream

TEST_F(ViewerConnectionTest, aStreamIsToldWhenItsShapeChanges) {
    stream(toEndpoint());
    EXPECT_EQ(sizes, (std::vector<PixelSize>{{64, 48}}));
    EXPECT_EQ(viewer->codecName(), "H.264");
    host->sendConfig();
    run(50ms);
    EXPECT_EQ(sizes.size(), 1u);
    host->startStream({64, 48}, VideoCodec::hevc, true);
    run(50ms);
    EXPECT_EQ(sizes.size(), 2u);  // now it follows the window
    EXPECT_EQ(viewer->codecName(), "HEVC");
    host->startStream({80, 48}, VideoCodec::hevc, true);
    run(50ms);
    EXPECT_EQ(viewer->streamSize(), (PixelSize{80, 48}));
    EXPECT_EQ(sizes.size(), 3u);
}

TEST_F(ViewerConnectionTest, inputGoesOutOnlyWhileStreaming) {
    connect(toEndpoint());
    run(50ms);
    viewer->sendInput({.kind = InputEvent::Kind::mouseMove, .x = 0.5});
    run(50ms);
    EXPECT_EQ(host->countOf(MessageType::input), 0);
    host->startStream({64, 48});
    run(50ms);
    viewer->sendInput({.kind = InputEvent::Kind::mouseMove, .x = 0.25, .y = 0.5});
    run(50ms);
    EXPECT_EQ(InputEvent::decode(host->lastOf(MessageType::input))->x, 0.25);
}

TEST_F(ViewerConnectionTest, pingsGoOutOnceASecondWhileStreaming) {
    connect(toEndpoint());
    run(5s);
    EXPECT_EQ(host->countOf(MessageType::ping), 0);
    host->startStream({64, 48});
    run(5500ms);
    EXPECT_EQ(host->countOf(MessageType::ping), 6);  // and one at its beginning
    EXPECT_EQ(stats.size(), 5u);
}

TEST_F(ViewerConnectionTest, timesAreMeasuredAcrossTheClocks) {
    host.reset();
    host.emplace(link, hostQueue, ScriptedHost::Options{.clockAhead = 3'600'000'000});
    link.setConditions({.delay = 20ms});
    connect(toEndpoint());
    run(200ms);
    host->startStream({64, 48});
    host->sendKeyframe();
    run(1500ms);  // the first beat has asked for the host's time
    host->sendFrame({.captureMicros = host->nowMicros() - 5000});
    run(1s);
    ASSERT_EQ(stats.size(), 2u);
    EXPECT_NE(stats[1].networkP95, std::nullopt);
    EXPECT_NEAR(stats[1].networkP95.value_or(0), 20, 1);
    EXPECT_THAT(stats[1].overlay, HasSubstr("capture       5.0    5.0    5.0"));
    EXPECT_THAT(stats[1].overlay, HasSubstr("RTT 40."));
}

TEST_F(ViewerConnectionTest, theBitrateFollowsWhatTheLastSecondLookedLike) {
    stream(toEndpoint());
    EXPECT_EQ(host->countOf(MessageType::bitrateHint), 0);
    host->sendFrame({.way = ScriptedHost::Frame::Way::lost});
    host->sendFrame({});
    run(1s);
    EXPECT_EQ(lastHint(), 15);
    EXPECT_THAT(logged(), Contains("Bitrate 15 Mbit/s (lowering: 1 frame(s) lost)"));
    host->sendKeyframe();
    run(1s);
    EXPECT_EQ(host->countOf(MessageType::bitrateHint), 1);  // a lost frame counts in one second only
}

TEST_F(ViewerConnectionTest, aCostlyPathLimitsTheBitrateOnce) {
    path.kind = {.constrained = true, .expensive = true};
    preferences.set(PreferenceKeys::cellularMbps, std::int64_t{4});
    stream(toEndpoint());
    EXPECT_EQ(lastHint(), 4);
    EXPECT_THAT(logged(), Contains("Connection is Low Data Mode: asking the host for at most 4 Mbit/s"));
    for (int second = 0; second < 10; ++second) {
        host->sendFrame({});
        run(1s);
    }
    EXPECT_EQ(host->countOf(MessageType::bitrateHint), 1);  // nothing raises it above the limit
    EXPECT_EQ(path.asked, 1);
    host->sendFrame({});
    host->sendFrame({.way = ScriptedHost::Frame::Way::lost});
    host->sendFrame({});
    run(1s);
    EXPECT_EQ(lastHint(), 3);  // and cuts begin at the limit
}

TEST_F(ViewerConnectionTest, theLastPictureIsKeptEveryFifteenSeconds) {
    stream(toEndpoint());
    run(15s);
    EXPECT_TRUE(snapshots.empty());
    run(2s);
    EXPECT_EQ(snapshots.size(), 1u);
    run(14s);
    EXPECT_EQ(snapshots.size(), 1u);
    run(3s);
    EXPECT_EQ(snapshots.size(), 2u);
}

TEST_F(ViewerConnectionTest, withoutDatagramsFramesComeAsMessages) {
    link.carriesDatagrams = false;
    connect(toEndpoint());
    run(50ms);
    host->startStream({64, 48});
    host->sendFrame({.keyframe = true, .way = ScriptedHost::Frame::Way::stream});
    run(50ms);
    EXPECT_EQ(frames.size(), 1u);
    EXPECT_NE(viewer->lastImage(), nullptr);
}

}  // namespace
}  // namespace velmora
