#include "Testing/SimulatedLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Testing/ConnectedPair.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using State = TransportState;

class SimulatedLinkTest : public ::testing::Test {
protected:
    void connect() {
        pair.emplace(time, link, hostQueue, viewerQueue);
        pair->viewerFlow->onDatagram = [this](const Bytes& data) {
            received.push_back(data.front());
            arrivals.push_back(time.now());
        };
        pair->hostFlow->onLost = [this](std::uint64_t tag) { lostTags.push_back(tag); };
        pair->viewerGroup->onState = [this](State state, const auto&) { viewerStates.push_back(state); };
        pair->hostGroup->onState = [this](State state, const auto&) { hostStates.push_back(state); };
    }
    void sendDatagrams(int count, std::size_t size = 1000, std::uint64_t tag = 0) {
        for (int i = 0; i < count; ++i) {
            pair->hostFlow->send({std::make_shared<const Bytes>(size, static_cast<std::uint8_t>(i))}, tag);
        }
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue hostQueue{time, "host"}, viewerQueue{time, "viewer"};
    std::optional<ConnectedPair> pair;
    std::vector<int> received;
    std::vector<HostClock::time_point> arrivals;
    std::vector<std::uint64_t> lostTags;
    std::vector<State> viewerStates, hostStates;
};

TEST_F(SimulatedLinkTest, datagramsTakeTheDelayInOrderUnlessTheLinkReordersOrDoublesThem) {
    link.setConditions({.delay = 25ms});
    connect();
    const auto sentAt = time.now();
    sendDatagrams(50);
    time.advanceBy(1s);
    ASSERT_EQ(received.size(), 50u);
    EXPECT_TRUE(std::is_sorted(received.begin(), received.end()));
    EXPECT_EQ(arrivals.front() - sentAt, 25ms);
    EXPECT_EQ(arrivals.back() - sentAt, 25ms);

    received.clear();
    link.toConnector.conditions.jitter = 10ms;
    link.toConnector.conditions.duplication = 0.5;
    sendDatagrams(50);
    time.advanceBy(1s);
    EXPECT_FALSE(std::is_sorted(received.begin(), received.end()));
    EXPECT_GT(received.size(), 60u);
    EXPECT_LT(received.size(), 90u);
    std::sort(received.begin(), received.end());
    received.erase(std::unique(received.begin(), received.end()), received.end());
    EXPECT_EQ(received.size(), 50u);
}

TEST_F(SimulatedLinkTest, losesItsShareTheSameInEveryRunAndTellsTheTags) {
    const auto survivorsOf = [](std::uint32_t seed) {
        VirtualTime time;
        SimulatedLink link(time, seed);
        link.setConditions({.delay = 5ms, .loss = 0.1});
        VirtualQueue queue(time);
        ConnectedPair pair(time, link, queue, queue);
        std::vector<int> survivors;
        std::uint64_t lost = 0;
        pair.viewerFlow->onDatagram = [&](const Bytes& data) { survivors.push_back(data.front()); };
        pair.hostFlow->onLost = [&](std::uint64_t tag) { lost += tag == 9 ? 1 : 0; };
        for (int i = 0; i < 1000; ++i) {
            pair.hostFlow->send({std::make_shared<const Bytes>(100, static_cast<std::uint8_t>(i))}, 9);
        }
        time.advanceBy(1s);
        EXPECT_EQ(survivors.size() + lost, 1000u);
        EXPECT_EQ(pair.hostFlow->statistics().datagramsLost, lost);
        EXPECT_EQ(pair.hostFlow->statistics().datagramsAcked, survivors.size());
        return survivors;
    };
    const auto first = survivorsOf(7);
    EXPECT_GT(first.size(), 850u);
    EXPECT_LT(first.size(), 950u);
    EXPECT_EQ(survivorsOf(7), first);
    EXPECT_NE(survivorsOf(8), first);
}

TEST_F(SimulatedLinkTest, aScriptDropsTheDatagramsItNames) {
    connect();
    link.toConnector.dropsDatagram = [](ByteView data) { return data[0] == 2; };
    sendDatagrams(4, 10, 5);
    time.advanceBy(1s);
    EXPECT_EQ(received, (std::vector{0, 1, 3}));
    EXPECT_EQ(lostTags, (std::vector<std::uint64_t>{5}));
}

TEST_F(SimulatedLinkTest, bytesWaitInTheSenderWhileTheBottleneckIsFull) {
    link.setConditions({.delay = 20ms, .bitsPerSecond = 8'000'000});
    connect();
    int drained = 0;
    pair->hostFlow->onDrained = [&] { drained += 1; };
    const auto sentAt = time.now();
    sendDatagrams(1000);
    EXPECT_EQ(pair->hostFlow->pendingBytes(), 1'000'000u);
    time.advanceBy(300ms);
    // A megabyte a second, of which the window of two round trips' worth is under way.
    EXPECT_NEAR(static_cast<double>(pair->hostFlow->pendingBytes()), 650'000, 60'000);
    EXPECT_EQ(pair->hostFlow->oldestPendingAge(), 300ms);
    EXPECT_EQ(drained, 0);
    time.advanceBy(2s);
    EXPECT_EQ(received.size(), 1000u);
    EXPECT_EQ(drained, 1);
    EXPECT_EQ(pair->hostFlow->pendingBytes(), 0u);
    EXPECT_EQ(pair->hostFlow->oldestPendingAge(), 0us);
    EXPECT_NEAR(static_cast<double>((arrivals.back() - sentAt).count()), 1'080'000, 20'000);
    const auto statistics = pair->hostFlow->statistics();
    EXPECT_EQ(statistics.minRtt, 41'060us);
    EXPECT_GT(statistics.smoothedRtt, 60ms);
    EXPECT_EQ(statistics.bytesSent, 1'000'000u);
    EXPECT_EQ(statistics.datagramsLost, 0u);

    // A window larger than what the queue before the bottleneck holds: the tail drops.
    link.toConnector.conditions.congestionWindow = 1'000'000;
    link.toConnector.conditions.queueLimit = 50'000;
    sendDatagrams(200);
    time.advanceBy(2s);
    EXPECT_NEAR(static_cast<double>(pair->hostFlow->statistics().datagramsLost), 153, 3);
}

TEST_F(SimulatedLinkTest, streamDataComeThroughLossAndReorderingWhole) {
    link.setConditions({.delay = 20ms, .jitter = 10ms, .loss = 0.1, .bitsPerSecond = 20'000'000});
    connect();
    Bytes data(500'000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i / 1000);
    pair->hostStream->send(data, nullptr);
    Bytes got;
    pair->viewerStream->receiveExactly(data.size(), [&](Stream::Received r) { got = std::move(r.data); });
    time.advanceBy(5s);
    EXPECT_TRUE(got == data);
}

TEST_F(SimulatedLinkTest, aDeadSpanDelaysStreamsAndLosesDatagrams) {
    connect();
    link.cutFor(3s);
    Bytes got;
    pair->viewerStream->receiveExactly(5, [&](Stream::Received r) { got = std::move(r.data); });
    pair->hostStream->send(bytesOf("alive"), nullptr);
    sendDatagrams(2, 10, 4);
    time.advanceBy(2900ms);
    EXPECT_TRUE(got.empty());
    EXPECT_TRUE(lostTags.empty());
    time.advanceBy(200ms);
    EXPECT_EQ(got, bytesOf("alive"));
    EXPECT_TRUE(received.empty());
    EXPECT_EQ(lostTags, (std::vector<std::uint64_t>{4, 4}));
    sendDatagrams(1);
    time.advanceBy(100ms);
    EXPECT_EQ(received.size(), 1u);
    EXPECT_TRUE(viewerStates.empty());
}

TEST_F(SimulatedLinkTest, twentySecondsOfSilenceFailBothEnds) {
    connect();
    link.cut();
    for (int i = 0; i < 19; ++i) {
        pair->viewerStream->send({1}, nullptr);
        time.advanceBy(1s);
    }
    EXPECT_TRUE(viewerStates.empty());
    time.advanceBy(2s);
    EXPECT_EQ(viewerStates, std::vector{State::failed});
    EXPECT_EQ(hostStates, std::vector{State::failed});
    EXPECT_EQ(pair->viewerStream->state(), State::failed);
}

TEST_F(SimulatedLinkTest, cancellingOverADeadLinkWaitsHalfASecondAndThePeerFindsOutBySilence) {
    connect();
    link.cut();
    pair->viewerStream->send(bytesOf("bye"), nullptr);
    pair->viewerGroup->cancel();
    time.advanceBy(499ms);
    EXPECT_TRUE(viewerStates.empty());
    time.advanceBy(1ms);
    EXPECT_EQ(viewerStates, std::vector{State::cancelled});
    link.restore();
    time.advanceBy(19s);
    EXPECT_TRUE(hostStates.empty());
    time.advanceBy(2s);
    EXPECT_EQ(hostStates, std::vector{State::failed});
}

TEST_F(SimulatedLinkTest, whereNothingListensAnAttemptWaitsAndGivesUpAfterTenSeconds) {
    const auto first = link.connectTo(Endpoint::hostPort("198.51.100.1", 1), {});
    const auto second = link.connectTo(Endpoint::service("Mac", "_velmora._udp", "local."), {});
    bool secondWasReady = false;
    second->onState = [&](State state, const auto&) { secondWasReady |= state == State::ready; };
    first->start(viewerQueue);
    second->start(viewerQueue);
    time.advanceBy(5s);
    EXPECT_EQ(first->state(), State::preparing);
    connect();  // now there is one listener, which the service leads to
    time.advanceBy(1s);
    EXPECT_TRUE(secondWasReady);
    time.advanceBy(5s);
    EXPECT_EQ(first->state(), State::failed);
}

TEST_F(SimulatedLinkTest, aReaderThatStopsHoldsTheSenderUp) {
    connect();
    int completed = 0;
    for (int i = 0; i < 30; ++i) {
        pair->hostStream->send(Bytes(100'000), [&](const auto&) { completed += 1; });
    }
    time.advanceBy(5s);
    EXPECT_EQ(completed, 10);
    std::size_t got = 0;
    pair->viewerStream->receiveExactly(3'000'000, [&](const Stream::Received& r) { got = r.data.size(); });
    time.advanceBy(5s);
    EXPECT_EQ(completed, 30);
    EXPECT_EQ(got, 3'000'000u);
}

}  // namespace
}  // namespace velmora
