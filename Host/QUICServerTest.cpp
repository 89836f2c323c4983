#include "Host/QUICServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const HostIdentityCertificate certificate{{.certificate = {1, 2}, .privateKey = {3}}, "FINGERPRINT"};
constexpr const char* silentLine =
    "⚠︎ A QUIC connection didn't open its streams within 10 s; dropping it";

class QUICServerTest : public ::testing::Test {
protected:
    struct Arrival {
        HostClock::duration at;
        std::shared_ptr<MessageConnection> connection;
        std::shared_ptr<DatagramFlow> video;
    };

    QUICServerTest() {
        link.setConditions({.delay = 0ms});
        makeServer({});
        listener = link.listenOn(47272, {.identity = certificate.identity});
        listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) {
            server->accept(std::move(group));
        };
        listener->start(main);
        viewer = link.connectTo(Endpoint::hostPort("192.0.2.1", 47272), {});
        viewer->onState = [this](TransportState state, const auto&) { viewerState = state; };
        viewer->start(viewerQueue);
        time.settle();
        begin = time.now();
    }
    void makeServer(QUICServer::Parameters parameters) {
        server = std::make_unique<QUICServer>([this] { return load(); }, quic, main, parameters);
        server->onNewViewer = [this](auto connection, auto video) {
            EXPECT_TRUE(main.isCurrent());
            arrivals.push_back({time.now() - begin, std::move(connection), std::move(video)});
        };
    }
    Result<HostIdentityCertificate, KeyStore::Lack> load() {
        EXPECT_TRUE(quic.isCurrent());
        if (lack) return *lack;
        return certificate;
    }
    void openStream(Bytes first = {6, 0, 0, 0, 0}) {
        streams.push_back(viewer->openStream());
        streams.back()->start(viewerQueue);
        streams.back()->send(std::move(first), nullptr);
        time.settle();
    }
    void openFlow() {
        flow = viewer->openDatagramFlow();
        flow->start(viewerQueue);
        flow->send({std::make_shared<const Bytes>(1, std::uint8_t{0})}, 0);
        time.settle();
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue main{time, "main"}, quic{time, "velmora.quic"}, viewerQueue{time, "viewer"};
    DiaryReader diary;
    std::optional<KeyStore::Lack> lack;
    std::unique_ptr<QUICServer> server;
    std::unique_ptr<Listener> listener;
    std::shared_ptr<ConnectionGroup> viewer;
    std::optional<TransportState> viewerState;
    std::vector<std::shared_ptr<Stream>> streams;
    std::shared_ptr<DatagramFlow> flow;
    std::vector<Arrival> arrivals;
    HostClock::time_point begin;
};

TEST_F(QUICServerTest, handsOverWhenTheFlowFollowsTheStream) {
    openStream();
    time.advanceBy(100ms);
    openFlow();
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].at, 100ms);
    EXPECT_TRUE(arrivals[0].video);
    time.advanceBy(20s);
    EXPECT_EQ(arrivals.size(), 1u);
    EXPECT_THAT(diary.hostLines(), IsEmpty());
}

TEST_F(QUICServerTest, handsOverASecondAfterTheStreamWhenTheFlowCameFirst) {
    openFlow();
    time.advanceBy(100ms);
    openStream();
    time.advanceBy(999ms);
    EXPECT_TRUE(arrivals.empty());
    time.advanceBy(1ms);
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].at, 1100ms);
    EXPECT_TRUE(arrivals[0].video);
}

TEST_F(QUICServerTest, handsOverWithoutAFlowThatComesLateOrNever) {
    openStream();
    time.advanceBy(1500ms);
    openFlow();
    time.advanceBy(5s);
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].at, 1000ms);
    EXPECT_FALSE(arrivals[0].video);
}

TEST_F(QUICServerTest, dropsAConnectionThatHasNotBeenHandedOverIn10Seconds) {
    time.advanceBy(9500ms);
    openStream();
    EXPECT_THAT(diary.hostLines(), IsEmpty());
    time.advanceBy(2s);
    EXPECT_THAT(diary.hostLines(), ElementsAre(silentLine));
    EXPECT_TRUE(arrivals.empty());
    EXPECT_EQ(viewerState, TransportState::cancelled);
}

TEST_F(QUICServerTest, saysNothingAboutAConnectionThatHasGoneByThen) {
    viewer->cancel();
    time.advanceBy(20s);
    EXPECT_THAT(diary.hostLines(), IsEmpty());
    EXPECT_TRUE(arrivals.empty());
}

TEST_F(QUICServerTest, logsAFailureBeforeTheHandOverAndNotAfterIt) {
    openStream();
    time.advanceBy(1s);
    ASSERT_EQ(arrivals.size(), 1u);
    makeServer({.streamDeadline = 60s});
    auto second = link.connectTo(Endpoint::hostPort("192.0.2.1", 47272), {});
    second->start(viewerQueue);
    time.settle();
    link.cut();
    time.advanceBy(25s);
    EXPECT_THAT(diary.hostLines(), ElementsAre("QUIC connection failed: Connection timed out"));
}

TEST_F(QUICServerTest, aFloodOfIdleConnectionsDropsTheLongestWaitingOfThem) {
    makeServer({.maxWaiting = 3});
    std::vector<std::shared_ptr<ConnectionGroup>> idle;
    for (int i = 0; i < 4; ++i) {
        idle.push_back(link.connectTo(Endpoint::hostPort("192.0.2.1", 47272), {}));
        idle.back()->start(viewerQueue);
        time.advanceBy(10ms);
    }
    EXPECT_EQ(idle[0]->state(), TransportState::cancelled);
    EXPECT_EQ(idle[1]->state(), TransportState::ready);
    EXPECT_EQ(diary.hostLines().size(), 1u);
    const auto stream = idle[1]->openStream();
    stream->start(viewerQueue);
    stream->send({1}, nullptr);
    time.advanceBy(1s);
    EXPECT_EQ(arrivals.size(), 1u);
}

TEST_F(QUICServerTest, theControlStreamIsTheFirstAndItsPeerIsNotTrustedYet) {
    Bytes tooLong{1, 0, 1, 0, 1};
    tooLong.resize(5 + 65537, 'x');
    openStream(tooLong);
    openStream();
    time.advanceBy(1s);
    ASSERT_EQ(arrivals.size(), 1u);
    std::vector<std::pair<MessageType, std::size_t>> messages;
    std::optional<TransportState> state;
    const auto& connection = arrivals[0].connection;
    connection->onMessage = [&](MessageType type, const Bytes& payload) {
        EXPECT_TRUE(quic.isCurrent());
        messages.emplace_back(type, payload.size());
    };
    connection->onStateChange = [&](TransportState now, const auto&) { state = now; };
    connection->adoptStarted();
    time.settle();
    EXPECT_THAT(messages, ElementsAre(std::pair(MessageType::hello, std::size_t{0})));
    EXPECT_EQ(connection->remoteDescription(), "192.0.2.7:50000");
    viewer->cancel();
    time.advanceBy(1s);
    EXPECT_EQ(state, TransportState::cancelled);
}

TEST_F(QUICServerTest, itsEndEndsWhatWaitsAndLeavesWhatWasHandedOver) {
    openStream();
    openFlow();
    auto waiting = link.connectTo(Endpoint::hostPort("192.0.2.1", 47272), {});
    waiting->start(viewerQueue);
    time.settle();
    listener.reset();
    server.reset();
    time.advanceBy(1s);
    EXPECT_EQ(waiting->state(), TransportState::cancelled);
    EXPECT_EQ(viewerState, TransportState::ready);
    arrivals.clear();
    time.advanceBy(1s);
    EXPECT_EQ(viewerState, TransportState::cancelled);
}

TEST_F(QUICServerTest, loadsTheCertificateOffTheMainQueueAndMayBeAskedAgain) {
    std::vector<std::optional<KeyStore::Lack>> answers;
    const auto note = [&](std::optional<KeyStore::Lack> answer) {
        EXPECT_TRUE(main.isCurrent());
        answers.push_back(answer);
    };
    lack = KeyStore::Lack::unavailable;
    server->loadCertificate(note);
    EXPECT_TRUE(answers.empty());
    time.settle();
    EXPECT_FALSE(server->identity);
    lack.reset();
    server->loadCertificate(note);
    time.settle();
    EXPECT_THAT(answers, ElementsAre(KeyStore::Lack::unavailable, std::nullopt));
    EXPECT_EQ(server->identity, certificate.identity);
    EXPECT_EQ(server->fingerprint, "FINGERPRINT");
}

}  // namespace
}  // namespace velmora
