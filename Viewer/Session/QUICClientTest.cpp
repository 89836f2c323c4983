#include "Viewer/Session/QUICClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Media/VideoPackets.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Counts the timers that are set on it.
class CountingQueue final : public Queue {
public:
    explicit CountingQueue(VirtualTime& time) : inner_(time, "velmora.quic.client") {}
    void post(Block block) override { inner_.post(std::move(block)); }
    TimerToken after(HostClock::duration delay, Block block) override {
        timers += 1;
        return inner_.after(delay, std::move(block));
    }
    void runSync(Block block) override { inner_.runSync(std::move(block)); }
    HostClock::time_point now() const override { return inner_.now(); }
    bool isCurrent() const override { return inner_.isCurrent(); }
    std::string_view name() const override { return inner_.name(); }

    int timers = 0;

private:
    VirtualQueue inner_;
};

class QUICClientTest : public ::testing::Test {
protected:
    QUICClientTest() {
        link.setConditions({.delay = 0ms});
        listener = link.listenOn(47272, {.identity = TransportIdentity{bytesOf("RIGHT"), {}}});
        listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) { acceptGroup(std::move(group)); };
        listener->start(hostQueue);
        makeClient(QUICSetup::Pinned{"RIGHT"});
    }
    void makeClient(QUICSetup::Verification verification, std::uint16_t port = 47272) {
        client = std::make_unique<QUICClient>(
            QUICClient::Attempt{.label = "LAN 192.0.2.1",
                                .endpoint = Endpoint::hostPort("192.0.2.1", port),
                                .verification = verification},
            link, queue, main);
        client->onReady = [this](QUICClient& ready) {
            EXPECT_TRUE(main.isCurrent());
            note("ready " + ready.label());
        };
        client->onFailed = [this](QUICClient&, const std::string& reason) {
            EXPECT_TRUE(main.isCurrent());
            note("failed: " + reason);
        };
    }
    void acceptGroup(std::shared_ptr<ConnectionGroup> group) {
        hostGroup = std::move(group);
        hostGroup->onState = [this](TransportState state, const auto&) { hostState = state; };
        hostGroup->onStream = [this](std::shared_ptr<Stream> stream) {
            note("stream at host");
            hostStream = std::move(stream);
        };
        hostGroup->onDatagramFlow = [this](std::shared_ptr<DatagramFlow> flow) {
            hostFlow = std::move(flow);
            hostFlow->onDatagram = [this](const Bytes& data) {
                note("datagram at host");
                openings.push_back(time.now() - begin);
                EXPECT_EQ(data, Bytes{0});
            };
            hostFlow->start(hostQueue);
        };
        hostGroup->start(hostQueue);
    }
    void note(std::string event) { events.push_back(std::move(event)); }

    QUICClient::VideoHandlers handlers() {
        return {.onFrame =
                    [this](const Bytes& record) {
                        EXPECT_TRUE(queue.isCurrent());
                        note("frame of " + std::to_string(record.size()));
                    },
                .onGap = [this] { note("gap"); },
                .onNack =
                    [this](const Nack& nack) {
                        nacks.emplace_back(time.now() - begin, nack);
                        note("nack");
                    }};
    }
    /// Connected, the flow known to the host, and the story begins at `begin`.
    void startVideo() {
        client->start();
        time.settle();
        begin = time.now();
        client->startVideo(handlers());
        time.settle();
        ASSERT_TRUE(hostFlow);
    }
    void sendFrame(std::uint32_t frame, std::size_t size, std::vector<std::size_t> without = {}) {
        const auto packets = VideoPackets::split(Bytes(size, 1), frame, 1000);
        for (std::size_t i = 0; i < packets.size(); ++i) {
            if (std::count(without.begin(), without.end(), i) == 0) hostFlow->send({packets[i]}, frame);
        }
        time.settle();
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue main{time, "main"}, hostQueue{time, "host"};
    CountingQueue queue{time};
    DiaryReader diary;
    std::unique_ptr<Listener> listener;
    std::unique_ptr<QUICClient> client;
    std::shared_ptr<ConnectionGroup> hostGroup;
    std::optional<TransportState> hostState;
    std::shared_ptr<Stream> hostStream;
    std::shared_ptr<DatagramFlow> hostFlow;
    std::vector<std::string> events;
    std::vector<HostClock::duration> openings;
    std::vector<std::pair<HostClock::duration, Nack>> nacks;
    HostClock::time_point begin;
};

TEST_F(QUICClientTest, tellsReadyAndAFailureThatComesLater) {
    client->start();
    time.settle();
    EXPECT_THAT(events, ElementsAre("ready LAN 192.0.2.1"));
    link.cut();
    time.advanceBy(21s);
    EXPECT_THAT(events, ElementsAre("ready LAN 192.0.2.1", "failed: Connection timed out"));
}

TEST_F(QUICClientTest, anUnreachableAddressAndAWrongCertificateFailTheAttempt) {
    makeClient(QUICSetup::Pinned{"WRONG"});
    client->start();
    time.settle();
    EXPECT_THAT(events, ElementsAre("failed: the certificate was refused"));
    EXPECT_THAT(
        diary.viewerLines(),
        ElementsAre("⚠︎ QUIC: the other Mac's certificate doesn't match the expected one; refusing"));
    events.clear();
    makeClient(QUICSetup::Pinned{"RIGHT"}, 1);
    client->start();
    time.advanceBy(11s);
    EXPECT_THAT(events, ElementsAre("failed: Connection timed out"));
}

TEST_F(QUICClientTest, aLosingAttemptIsSilentOnceCancelled) {
    // Cancelled while the news of its readiness is on the way from its queue to the main one.
    makeClient(QUICSetup::TrustOnFirstUse{[this](const std::string&) {
        main.post([this] { main.post([this] { client->cancel(); }); });
        return true;
    }});
    client->start();
    time.advanceBy(1s);
    EXPECT_EQ(client->group().state(), TransportState::cancelled);
    client->cancel();
    time.advanceBy(11s);
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(QUICClientTest, mayBeDestroyedByItsOwnNews) {
    client->onReady = [this](QUICClient&) { client.reset(); };
    client->start();
    time.advanceBy(1s);
    EXPECT_FALSE(client);
    EXPECT_TRUE(!hostState || hostState == TransportState::cancelled);
}

TEST_F(QUICClientTest, opensTheFlowRightAfterHelloAndRepeatsUntilVideoComes) {
    client->start();
    time.settle();
    begin = time.now();
    const auto control = client->openControlStream();
    control->start(queue);
    control->send(bytesOf("hello"), nullptr);
    client->startVideo(handlers());
    events.clear();
    time.advanceBy(5s);
    EXPECT_THAT(openings, ElementsAre(0ms, 100ms, 300ms, 700ms));
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[0], "stream at host");
    EXPECT_EQ(events[1], "datagram at host");
    EXPECT_THAT(diary.viewerLines(), ElementsAre("QUIC video datagrams ready (up to 1165 bytes each)"));
}

TEST_F(QUICClientTest, videoEndsTheRepeating) {
    startVideo();
    time.advanceBy(150ms);
    sendFrame(1, 10);
    time.advanceBy(5s);
    EXPECT_THAT(openings, ElementsAre(0ms, 100ms));
}

TEST_F(QUICClientTest, asksForAMissingPacketAfter20MillisecondsAndDeliversOnceItIsThere) {
    startVideo();
    sendFrame(1, 3000, {1});
    sendFrame(2, 500);
    events.clear();
    time.advanceBy(21ms);
    ASSERT_EQ(nacks.size(), 1u);
    EXPECT_EQ(nacks[0].second, (Nack{.frame = 1, .indices = {1}}));
    EXPECT_GE(nacks[0].first, 20ms);
    hostFlow->send({VideoPackets::split(Bytes(3000, 1), 1, 1000)[1]}, 1);
    time.advanceBy(1s);
    EXPECT_THAT(events, ElementsAre("nack", "frame of 3000", "frame of 500"));
}

TEST_F(QUICClientTest, asksInTimeWhateverTheClockShows) {
    // Seconds as a floating number: 20 ms later can be a hair less than 0.02 more.
    startVideo();
    sendFrame(1, 10);
    for (std::uint32_t frame = 2; frame < 60; ++frame) {
        time.advanceBy(7301us);
        sendFrame(frame, 1500, {1});
        nacks.clear();
        time.advanceBy(21ms);
        ASSERT_EQ(nacks.size(), 1u) << frame;
        hostFlow->send({VideoPackets::split(Bytes(1500, 1), frame, 1000)[1]}, frame);
        time.settle();
    }
}

TEST_F(QUICClientTest, givesUpAHoleAsAGapBeforeTheFramesBehindIt) {
    startVideo();
    sendFrame(1, 3000, {0});
    sendFrame(2, 500);
    events.clear();
    time.advanceBy(1s);
    EXPECT_THAT(events, ElementsAre("nack", "nack", "nack", "nack", "gap", "frame of 500"));
    EXPECT_LE(nacks.back().first, 250ms);
}

TEST_F(QUICClientTest, itsTimerRunsOnlyWhileAHoleIsPending) {
    startVideo();
    sendFrame(1, 3000);
    time.advanceBy(5s);
    const int before = queue.timers;
    sendFrame(2, 3000, {2});
    time.advanceBy(50ms);
    EXPECT_GE(queue.timers, before + 2);
    hostFlow->send({VideoPackets::split(Bytes(3000, 1), 2, 1000)[2]}, 2);
    time.settle();
    const int mended = queue.timers;
    time.advanceBy(10s);
    EXPECT_EQ(queue.timers, mended);
}

TEST_F(QUICClientTest, withoutDatagramsVideoIsLeftToTheControlStream) {
    link.carriesDatagrams = false;
    client->start();
    time.settle();
    client->startVideo(handlers());
    time.advanceBy(5s);
    EXPECT_THAT(diary.viewerLines(),
                ElementsAre("⚠︎ QUIC: no datagram flow; video will use the control stream"));
    EXPECT_EQ(queue.timers, 0);
}

TEST_F(QUICClientTest, cancelEndsTheVideoAndTheConnection) {
    startVideo();
    sendFrame(1, 3000, {0});
    client->cancel();
    events.clear();
    sendFrame(1, 3000);
    time.advanceBy(5s);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(hostState, TransportState::cancelled);
}

TEST_F(QUICClientTest, refusesWhatTheHostOpens) {
    startVideo();
    const auto opened = hostGroup->openStream();
    opened->start(hostQueue);
    opened->send({1}, nullptr);
    bool ended = false;
    opened->receiveExactly(1, [&](const Stream::Received& received) { ended = received.isComplete; });
    time.advanceBy(1s);
    EXPECT_TRUE(ended);
    EXPECT_EQ(hostState, TransportState::ready);
}

}  // namespace
}  // namespace velmora
