#include "Host/StreamServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/ScriptedViewer.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr const char* password = "042137";
const HostIdentityCertificate certificate{{.certificate = bytesOf("AB01"), .privateKey = {3}}, "AB01"};

/// A session that does what the test says.
struct SessionProbe {
    AdmittedViewer viewer;
    std::function<void(Status)> done;
    bool stopped = false, destroyed = false;
    std::vector<MessageType> messages;
    HostSession::Statistics statistics;
};
class ProbedSession final : public HostSession {
public:
    explicit ProbedSession(std::shared_ptr<SessionProbe> probe) : probe_(std::move(probe)) {}
    ~ProbedSession() override { probe_->destroyed = true; }
    void start(std::function<void(Status)> done) override { probe_->done = std::move(done); }
    void stop() override { probe_->stopped = true; }
    std::function<void(MessageType, Bytes)> messageHandler() override {
        return [weak = std::weak_ptr(probe_)](MessageType type, const Bytes&) {
            if (const auto probe = weak.lock()) probe->messages.push_back(type);
        };
    }
    Statistics takeStatistics() override { return std::exchange(probe_->statistics, {}); }

private:
    const std::shared_ptr<SessionProbe> probe_;
};

class StreamServerTest : public testing::Test {
protected:
    StreamServerTest() {
        link.setConditions({.delay = 0ms});
        makeServer();
    }
    ~StreamServerTest() override {
        viewers.clear();
        time.advanceBy(1s);
        server.reset();
        time.advanceBy(1s);
    }
    void makeServer() {
        server = std::make_unique<StreamServer>(
            StreamServer::Services{
                .main = main,
                .quic = quic,
                .transport = link,
                .discovery = discovery,
                .keepAwake = keepAwake,
                .machine = machine,
                .loadCertificate = [this] { return loadCertificate(); },
                .machineKind = [] { return MacKind::macmini; },
                .makeSession = [this](AdmittedViewer viewer) { return makeSession(viewer); }},
            settings);
        server->identity = [this] { return credentials; };
        server->onStatus = [this](const std::string& text, bool connected) {
            statuses.push_back(text);
            isConnected = connected;
        };
        server->onListenerBlocked = [this] { ++timesBlocked; };
    }
    Result<HostIdentityCertificate, KeyStore::Lack> loadCertificate() const {
        if (lack) return *lack;
        return certificate;
    }
    std::unique_ptr<HostSession> makeSession(const AdmittedViewer& viewer) {
        sessions.push_back(std::make_shared<SessionProbe>());
        sessions.back()->viewer = viewer;
        return std::make_unique<ProbedSession>(sessions.back());
    }
    void start() {
        server->start();
        time.settle();
    }
    static Hello hello(std::optional<std::string> with = password) {
        return {.name = "Desk", .password = std::move(with)};
    }
    ScriptedViewer& connect(ScriptedViewer::Options options = {}) {
        viewers.push_back(std::make_unique<ScriptedViewer>(link, viewerQueue, options));
        return *viewers.back();
    }
    ScriptedViewer& connectAndSay(const Hello& hello) {
        ScriptedViewer& viewer = connect();
        viewer.say(hello);
        time.advanceBy(1ms);
        return viewer;
    }
    std::string status() const { return statuses.empty() ? "" : statuses.back(); }
    std::map<std::string, std::string> advertised() {
        std::map<std::string, std::string> found;
        const auto request = discovery.browse(velmoraServiceType, main, [&](const auto& services) {
            for (const auto& service : services) found[service.service.name] = service.txt.at("id");
        });
        time.settle();
        return found;
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue main{time, "main"}, quic{time, "velmora.quic"}, viewerQueue{time, "viewer"};
    DiaryReader diary;
    FakeServiceDiscovery discovery;
    FakeKeepAwake keepAwake{main};
    FakeMachineInfo machine;
    ServerSettings settings;
    std::optional<KeyStore::Lack> lack;
    std::optional<HostCredentials> credentials{{.id = "123456789", .password = password}};
    std::vector<std::shared_ptr<SessionProbe>> sessions;
    std::vector<std::string> statuses;
    bool isConnected = false;
    int timesBlocked = 0;
    std::vector<std::unique_ptr<ScriptedViewer>> viewers;
    std::unique_ptr<StreamServer> server;
};

TEST_F(StreamServerTest, itListensAndAdvertisesWhatAViewerMustKnow) {
    start();
    EXPECT_EQ(status(), "Running · waiting for a viewer");
    EXPECT_THAT(diary.hostLines(), Contains("Listening for QUIC on UDP 47272 as “Studio”"));
    ServiceDiscovery::TxtRecord txt;
    const auto request = discovery.browse(velmoraServiceType, main, [&](const auto& services) {
        if (!services.empty()) txt = services[0].txt;
    });
    time.settle();
    EXPECT_THAT(txt,
                UnorderedElementsAre(Pair("fp", "AB01"), Pair("kind", "macmini"), Pair("id", "123456789")));
    time.advanceBy(10s);
    EXPECT_EQ(timesBlocked, 0);

    server->stop();
    time.settle();
    EXPECT_EQ(status(), "Stopped");
    EXPECT_THAT(diary.hostLines(), Contains("Server stopped"));
    EXPECT_THAT(advertised(), IsEmpty());
    start();
    EXPECT_EQ(status(), "Running · waiting for a viewer");
}

TEST_F(StreamServerTest, aPortInUseIsSaidAndTriedAgainEveryThreeSeconds) {
    auto other = link.listenOn(47272, {.identity = certificate.identity});
    other->start(main);
    time.settle();
    start();
    EXPECT_EQ(status(), "Port 47272 is in use. Is another copy of Velmora running?");
    EXPECT_THAT(advertised(), IsEmpty());
    time.advanceBy(2900ms);
    other.reset();
    EXPECT_NE(status(), "Running · waiting for a viewer");
    time.advanceBy(200ms);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
}

TEST_F(StreamServerTest, aServerStoppedMeanwhileIsNotStartedAgain) {
    auto other = link.listenOn(47272, {.identity = certificate.identity});
    other->start(main);
    time.settle();
    start();
    server->stop();
    other.reset();
    time.advanceBy(1min);
    EXPECT_EQ(status(), "Stopped");
    EXPECT_EQ(timesBlocked, 0);
}

TEST_F(StreamServerTest, withoutACertificateItSaysSoAndThenThatNobodyCanConnect) {
    lack = KeyStore::Lack::absent;
    start();
    EXPECT_EQ(status(), "Can't create this Mac's QUIC certificate; see the debug log");
    time.advanceBy(5s);
    EXPECT_EQ(status(), "Viewers can't connect: allow Local Network access for Velmora");
    EXPECT_EQ(timesBlocked, 1);
    server->stop();
    start();
    time.advanceBy(5s);
    EXPECT_EQ(timesBlocked, 1) << "told once";
}

TEST_F(StreamServerTest, aKeychainThatDoesNotAnswerIsAskedAgainAndLoggedOnce) {
    lack = KeyStore::Lack::unavailable;
    start();
    time.advanceBy(1min);
    EXPECT_EQ(status(), "Waiting for this Mac's keychain to be unlocked");
    EXPECT_THAT(
        diary.hostLines(),
        ElementsAre("⚠︎ The keychain doesn't answer, so this Mac's QUIC certificate can't be read yet"));
    lack.reset();
    time.advanceBy(5s);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
}

TEST_F(StreamServerTest, keepAwakeFollowsTheSettingWhileItRuns) {
    server->settings.keepAwake = true;
    server->updateKeepAwake();
    EXPECT_EQ(keepAwake.systemAssertions(), 0);
    start();
    EXPECT_EQ(keepAwake.systemAssertions(), 1);
    EXPECT_THAT(diary.hostLines(), Contains("Keeping this Mac awake while the server runs"));
    server->stop();
    EXPECT_EQ(keepAwake.systemAssertions(), 0);
    EXPECT_THAT(diary.hostLines(), Contains("This Mac may sleep again"));
    keepAwake.failure = Failure{"no", 13};
    start();
    EXPECT_EQ(keepAwake.systemAssertions(), 0);
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Couldn't keep this Mac awake (IOKit error 13)"));
}

TEST_F(StreamServerTest, anAdmittedViewerGetsASessionAndTheStatusLineItsFigures) {
    start();
    Hello said = hello();
    said.display = {.width = 800, .height = 600, .scale = 1};
    said.audio = true;
    ScriptedViewer& viewer = connectAndSay(said);
    ASSERT_EQ(sessions.size(), 1u);
    SessionProbe& session = *sessions[0];
    EXPECT_EQ(session.viewer.display, said.display);
    EXPECT_TRUE(session.viewer.audio);
    EXPECT_FALSE(session.viewer.agent);
    EXPECT_TRUE(session.viewer.videoFlow);
    const std::string welcome =
        "Hello from “Desk” (window 800×600 pt @1x). Right password on the local network";
    EXPECT_TRUE(viewer.hasLogLine(welcome));
    EXPECT_THAT(diary.hostLines(), Contains(welcome));
    EXPECT_THAT(diary.hostLines(), Contains(testing::EndsWith(" over QUIC (video as datagrams)")));
    EXPECT_EQ(status(), "Streaming to “Desk”");
    EXPECT_TRUE(isConnected);
    EXPECT_EQ(server->connectedViewerName(), "Desk");

    session.done(Done());
    session.statistics = {.frames = 57, .bytes = 1'234'567};
    time.advanceBy(1s);
    EXPECT_EQ(status(), "Streaming to Desk · 57 fps · 9.9 Mbit/s");
    time.advanceBy(1s);
    EXPECT_EQ(status(), "Streaming to Desk · 0 fps · 0.0 Mbit/s");

    viewer.send(MessageType::requestKeyframe);
    viewer.send(MessageType::hello, hello().encode());
    time.advanceBy(1ms);
    EXPECT_THAT(session.messages, ElementsAre(MessageType::requestKeyframe, MessageType::hello));

    viewer.close();
    time.advanceBy(1s);
    EXPECT_TRUE(session.stopped);
    EXPECT_TRUE(session.destroyed);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
    EXPECT_FALSE(isConnected);
    EXPECT_THAT(diary.hostLines(), Contains("Viewer disconnected"));
    EXPECT_FALSE(server->connectedViewerName());
}

TEST_F(StreamServerTest, aViewerWithoutAFlowIsServedAllTheSame) {
    start();
    ScriptedViewer& viewer = connect({.takesDatagrams = false});
    viewer.say(hello());
    time.advanceBy(1001ms);
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_FALSE(sessions[0]->viewer.videoFlow);
    EXPECT_THAT(diary.hostLines(), Contains(testing::EndsWith(" over QUIC")));
}

TEST_F(StreamServerTest, aDenialArrivesBeforeTheConnectionEndsHalfASecondLater) {
    start();
    ScriptedViewer& viewer = connectAndSay(hello("999999"));
    ASSERT_TRUE(viewer.denied());
    EXPECT_EQ(viewer.denied()->code, "wrong_password");
    EXPECT_EQ(viewer.denied()->message, "Wrong password.");
    EXPECT_THAT(viewer.logLines(), IsEmpty()) << "the reason is for the host's log only";
    EXPECT_THAT(diary.hostLines(), Contains("Denied “Desk”: wrong password (1 in the last hour)"));
    time.advanceBy(490ms);
    EXPECT_FALSE(viewer.ended);
    ScriptedViewer& next = connectAndSay(hello());
    EXPECT_EQ(sessions.size(), 1u) << "the place is free at once";
    time.advanceBy(600ms);
    EXPECT_TRUE(viewer.ended);
    EXPECT_FALSE(next.ended);
}

TEST_F(StreamServerTest, anotherProtocolIsToldAndCutOffWithoutADenial) {
    start();
    ScriptedViewer& viewer = connect();
    viewer.send(MessageType::hello, bytesOf("{not json"));
    time.advanceBy(1s);
    EXPECT_TRUE(viewer.hasLogLine(
        "⚠︎ Viewer uses protocol 0, this server 5. Update both Macs to the same build."));
    EXPECT_FALSE(viewer.denied());
    EXPECT_TRUE(viewer.ended);
    connectAndSay(hello());
    EXPECT_EQ(sessions.size(), 1u);
}

TEST_F(StreamServerTest, aHelloTooLongForAStrangerCountsAsUndecodable) {
    start();
    Hello endless = hello();
    endless.name.assign(MessageConnection::unauthenticatedPayload, 'x');
    ScriptedViewer& viewer = connectAndSay(endless);
    time.advanceBy(1s);
    EXPECT_TRUE(viewer.ended);
    EXPECT_THAT(sessions, IsEmpty());
}

TEST_F(StreamServerTest, aSecondViewerDuringAdmissionIsClosedWithoutAWord) {
    start();
    ScriptedViewer& slow = connect();
    slow.send(MessageType::ping, Bytes(8));  // not what is expected first, and not an offence
    time.advanceBy(1ms);
    ScriptedViewer& second = connectAndSay(hello());
    time.advanceBy(1s);
    EXPECT_TRUE(second.ended);
    EXPECT_THAT(second.received, IsEmpty());
    EXPECT_THAT(diary.hostLines(), Contains(testing::EndsWith(": another viewer is still connecting")));
    slow.say(hello());
    time.advanceBy(1ms);
    EXPECT_EQ(sessions.size(), 1u);
}

TEST_F(StreamServerTest, aViewerThatNeverSaysHelloIsDroppedAfterTenSeconds) {
    start();
    ScriptedViewer& silent = connect();
    silent.send(MessageType::ping, Bytes(8));
    time.advanceBy(9990ms);
    EXPECT_FALSE(silent.ended);
    time.advanceBy(20ms);
    connectAndSay(hello());
    EXPECT_EQ(sessions.size(), 1u) << "the place is free at once";
    time.advanceBy(1s);
    EXPECT_TRUE(silent.ended);
    EXPECT_THAT(diary.hostLines(), Contains(testing::EndsWith("didn't say hello within 10 s; dropping it")));
}

TEST_F(StreamServerTest, aSecondViewerOfASessionIsBusyAndTheSessionGoesOn) {
    start();
    connectAndSay(hello());
    ScriptedViewer& second = connectAndSay(hello());
    ASSERT_TRUE(second.denied());
    EXPECT_EQ(second.denied()->code, "busy");
    time.advanceBy(1s);
    EXPECT_FALSE(viewers[0]->ended);
    EXPECT_FALSE(sessions[0]->stopped);
    EXPECT_EQ(status(), "Streaming to “Desk”");
}

TEST_F(StreamServerTest, theSameDeviceTakesItsOldConnectionsPlace) {
    start();
    Hello said = hello();
    said.deviceID = "A";
    ScriptedViewer& old = connectAndSay(said);
    sessions[0]->done(Done());
    ScriptedViewer& next = connectAndSay(said);
    EXPECT_TRUE(next.hasLogLine("“Desk” reconnected; replacing its old connection"));
    EXPECT_TRUE(sessions[0]->destroyed);
    ASSERT_EQ(sessions.size(), 2u);
    time.advanceBy(1s);
    EXPECT_TRUE(old.ended);
    EXPECT_FALSE(next.ended);
    EXPECT_FALSE(sessions[1]->stopped) << "the end of the old connection is nobody's end now";
    EXPECT_EQ(status(), "Streaming to “Desk”");
    sessions[0]->done(Failure{"too late"});
    EXPECT_EQ(status(), "Streaming to “Desk”");
}

TEST_F(StreamServerTest, theSameDeviceWithAWrongPasswordLosesItsSession) {
    start();
    Hello said = hello();
    said.deviceID = "A";
    connectAndSay(said);
    said.password = "x";
    ScriptedViewer& next = connectAndSay(said);
    EXPECT_EQ(next.denied()->code, "wrong_password");
    EXPECT_TRUE(sessions[0]->destroyed);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
}

TEST_F(StreamServerTest, aTokenFromTheRendezvousServiceOpens) {
    start();
    server->authorize("T", "Desk");
    Hello said = hello(std::nullopt);
    said.sessionToken = "T";
    connectAndSay(said);
    EXPECT_EQ(sessions.size(), 1u);
}

TEST_F(StreamServerTest, aCaptureThatCannotStartIsToldInItsWords) {
    start();
    ScriptedViewer& viewer = connectAndSay(hello());
    sessions[0]->done(Failure{"No display found", 1});
    time.advanceBy(1ms);
    EXPECT_EQ(status(), "Capture failed: No display found");
    EXPECT_FALSE(isConnected);
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Session failed to start: No display found"));
    EXPECT_THAT(diary.hostLines(), Contains("Told the viewer that screen capture failed"));
    ASSERT_TRUE(viewer.denied());
    EXPECT_EQ(viewer.denied()->code, "capture");
    EXPECT_EQ(viewer.denied()->message, "Screen capture didn't start: No display found");
    EXPECT_FALSE(viewer.ended);
    time.advanceBy(1s);
    EXPECT_TRUE(viewer.ended);
    EXPECT_TRUE(sessions[0]->destroyed);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
}

TEST_F(StreamServerTest, disconnectSaysGoodbyeAndKeepsListening) {
    start();
    ScriptedViewer& viewer = connectAndSay(hello());
    server->disconnect();
    time.advanceBy(1s);
    EXPECT_EQ(viewer.countOf(MessageType::bye), 1);
    EXPECT_EQ(viewer.ended, TransportState::cancelled);
    EXPECT_EQ(status(), "Running · waiting for a viewer");
    connectAndSay(hello());
    EXPECT_EQ(sessions.size(), 2u);
}

TEST_F(StreamServerTest, stoppingEndsWhateverGoesOn) {
    start();
    ScriptedViewer& streaming = connectAndSay(hello());
    sessions[0]->done(Done());
    ScriptedViewer& undecided = connect();
    undecided.send(MessageType::ping, Bytes(8));
    time.advanceBy(1ms);
    server->stop();
    time.advanceBy(1s);
    EXPECT_TRUE(streaming.ended);
    EXPECT_TRUE(undecided.ended);
    EXPECT_TRUE(sessions[0]->destroyed);
    EXPECT_EQ(status(), "Stopped");
    const auto told = statuses.size();
    ScriptedViewer& late = connectAndSay(hello());
    time.advanceBy(1min);
    EXPECT_EQ(sessions.size(), 1u);
    EXPECT_THAT(late.received, IsEmpty());
    EXPECT_EQ(statuses.size(), told) << "no timer goes on";
}

TEST_F(StreamServerTest, aServerThatIsDestroyedTakesItsViewersAlong) {
    for (const bool started : {false, true}) {
        makeServer();
        start();
        ScriptedViewer& viewer = connectAndSay(hello());
        if (started) sessions.back()->done(Done());
        server.reset();
        time.advanceBy(2s);
        EXPECT_TRUE(viewer.ended);
        EXPECT_TRUE(sessions.back()->destroyed);
    }
}

}  // namespace
}  // namespace velmora
