#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Testing/PumpedQueue.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "Tests/Contracts/TransportDriver.h"
#include "Tests/TestIdentity.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using State = TransportState;

Bytes patternOf(std::size_t count) {
    Bytes data(count);
    for (std::size_t i = 0; i < count; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    return data;
}

SharedBytes shared(Bytes data) {
    return std::make_shared<const Bytes>(std::move(data));
}

/// A subject and every state it has told.
template <class Subject>
struct Watched {
    std::shared_ptr<Subject> subject;
    std::vector<State> states;
    std::optional<TransportError> error;

    void watch(std::shared_ptr<Subject> watched) {
        subject = std::move(watched);
        subject->onState = [this](State state, const std::optional<TransportError>& why) {
            states.push_back(state);
            if (why) error = why;
        };
    }
    bool has(State state) const { return std::count(states.begin(), states.end(), state) > 0; }
    long ends() const {
        return std::count_if(states.begin(), states.end(),
                             [](State s) { return s == State::failed || s == State::cancelled; });
    }
    Subject* operator->() const { return subject.get(); }
};

/// One host that listens, and what reaches it; viewers are made by the tests.
class ConnectionGroupContractTest : public ::testing::TestWithParam<TransportDriverMaker> {
protected:
    void SetUp() override {
        driver = GetParam()();
        port = driver->freePort();
        listener = driver->stack().listenOn(port, {.identity = driver->identity()});
        listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) { acceptGroup(std::move(group)); };
        listener->start(driver->queue());
        await([this] { return listener->state() == State::ready; });
    }
    void TearDown() override {
        // Everything ends before the stack does, as in a program.
        hostStream = {};
        hostFlow = {};
        hostGroup = {};
        listener.reset();
    }

    void acceptGroup(std::shared_ptr<ConnectionGroup> group) {
        groupsAccepted += 1;
        hostGroup.watch(std::move(group));
        hostGroup->onStream = [this](std::shared_ptr<Stream> stream) {
            streamsArrived += 1;
            if (hostStream.subject) return;
            hostStream.watch(std::move(stream));
            hostStream->start(driver->queue());
        };
        hostGroup->onDatagramFlow = [this](std::shared_ptr<DatagramFlow> flow) {
            hostFlow.watch(std::move(flow));
            hostFlow->onDatagram = [this](Bytes data) { hostDatagrams.push_back(std::move(data)); };
            hostFlow->start(driver->queue());
        };
        hostGroup->start(driver->queue());
    }
    /// Throws, which ends the test as failed: nothing after it could make sense.
    void await(const std::function<bool()>& condition) {
        if (!driver->waitUntil(condition)) throw std::runtime_error("waited in vain");
    }

    std::shared_ptr<ConnectionGroup> groupTo(std::uint16_t toPort, QUICSetup::Verification verification) {
        return driver->stack().connectTo(Endpoint::hostPort("127.0.0.1", toPort),
                                         {.verification = std::move(verification)});
    }
    /// A viewer's group that is ready.
    void connect(Watched<ConnectionGroup>& group) {
        group.watch(groupTo(port, QUICSetup::Pinned{driver->fingerprint()}));
        group->start(driver->queue());
        await([&] { return group.has(State::ready); });
    }
    /// With a stream of which the host has got the first byte.
    void connect(Watched<ConnectionGroup>& group, Watched<Stream>& stream) {
        connect(group);
        stream.watch(group->openStream());
        stream->start(driver->queue());
        stream->send({'!'}, nullptr);
        await([&] { return hostStream.subject != nullptr; });
        EXPECT_EQ(readFrom(*hostStream.subject, 1).data, Bytes{'!'});
    }
    Stream::Received readFrom(Stream& stream, std::size_t count) {
        std::optional<Stream::Received> answer;
        stream.receiveExactly(count, [&](Stream::Received received) { answer = std::move(received); });
        EXPECT_FALSE(answer) << "answered from inside the call";
        await([&] { return answer.has_value(); });
        return std::move(*answer);
    }

    std::unique_ptr<TransportDriver> driver;
    std::uint16_t port = 0;
    std::unique_ptr<Listener> listener;
    int groupsAccepted = 0, streamsArrived = 0;
    Watched<ConnectionGroup> hostGroup;
    Watched<Stream> hostStream;
    Watched<DatagramFlow> hostFlow;
    std::vector<Bytes> hostDatagrams;
};

TEST_P(ConnectionGroupContractTest, aStreamArrivesWithItsFirstByteAndCarriesBothWays) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group);
    stream.watch(group->openStream());
    stream->start(driver->queue());
    await([&] { return stream.has(State::ready) && hostGroup.subject; });
    EXPECT_EQ(streamsArrived, 0);
    stream->send(bytesOf("hello"), nullptr);
    await([&] { return hostStream.has(State::ready); });
    EXPECT_EQ(readFrom(*hostStream.subject, 2).data, bytesOf("he"));
    EXPECT_EQ(readFrom(*hostStream.subject, 3).data, bytesOf("llo"));
    hostStream->send(bytesOf("world"), nullptr);
    EXPECT_EQ(readFrom(*stream.subject, 5).data, bytesOf("world"));
    EXPECT_EQ(hostGroup->state(), State::ready);
    const std::string remote = hostStream->remoteDescription();
    EXPECT_NE(remote.find_last_of(':'), std::string::npos) << remote;
}

TEST_P(ConnectionGroupContractTest, carriesMegabytesInOrderAndCompletesEverySendOnce) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    const Bytes data = patternOf(3'000'000);
    std::vector<int> completed;
    for (int i = 0; i < 30; ++i) {
        const auto begin = data.begin() + i * 100'000;
        stream->send({begin, begin + 100'000}, [&, i](const auto& error) {
            EXPECT_FALSE(error);
            completed.push_back(i);
        });
    }
    Bytes received;
    for (const std::size_t part : {5u, 99'995u, 2'400'000u, 500'000u}) {
        const auto read = readFrom(*hostStream.subject, part);
        ASSERT_EQ(read.data.size(), part);
        EXPECT_FALSE(read.isComplete);
        received.insert(received.end(), read.data.begin(), read.data.end());
    }
    EXPECT_TRUE(received == data);
    await([&] { return completed.size() == 30; });
    EXPECT_TRUE(std::is_sorted(completed.begin(), completed.end()));
}

TEST_P(ConnectionGroupContractTest, theFlowArrivesWithItsFirstDatagramAndCarriesThemWhole) {
    Watched<ConnectionGroup> group;
    connect(group);
    Watched<DatagramFlow> flow;
    flow.watch(group->openDatagramFlow());
    ASSERT_TRUE(flow.subject);
    EXPECT_EQ(group->openDatagramFlow(), nullptr) << "taken twice";
    bool drained = false;
    std::vector<Bytes> viewerDatagrams;
    flow->onDrained = [&] { drained = true; };
    flow->onDatagram = [&](Bytes data) { viewerDatagrams.push_back(std::move(data)); };
    flow->start(driver->queue());
    flow->send({shared({0})}, 0);
    EXPECT_LE(flow->pendingBytes(), 1u);
    await([&] { return drained && !hostDatagrams.empty(); });
    EXPECT_EQ(hostDatagrams.front(), Bytes{0});
    EXPECT_EQ(flow->pendingBytes(), 0u);
    EXPECT_EQ(flow->oldestPendingAge(), 0us);
    EXPECT_EQ(hostFlow->state(), State::ready);

    const auto largest = hostFlow->usableDatagramFrameSize();
    ASSERT_TRUE(largest);
    EXPECT_GE(*largest, QUICSetup::defaultDatagramPayload);
    EXPECT_LE(*largest, QUICSetup::maxDatagramFrameSize);
    const Bytes full = patternOf(*largest);
    hostFlow->send({shared({}), shared(patternOf(1500)), shared(full), shared({7})}, 3);
    await([&] { return viewerDatagrams.size() >= 2; });
    EXPECT_THAT(viewerDatagrams, ::testing::UnorderedElementsAre(full, Bytes{7}));
    await([&] { return hostFlow->statistics().datagramsAcked == 2; });
    const PathStatistics statistics = hostFlow->statistics();
    EXPECT_EQ(statistics.datagramsSent, 2u);
    EXPECT_EQ(statistics.bytesSent, full.size() + 1);
    EXPECT_GT(statistics.smoothedRtt, 0us);
    EXPECT_LE(statistics.minRtt, statistics.smoothedRtt);
}

TEST_P(ConnectionGroupContractTest, aStreamArrivesBeforeTheFlowWhenBothAreOpenedAtOnce) {
    // The host waits a second for a stream that comes after its flow, so the other order would cost that.
    for (int i = 0; i < 10; ++i) {
        std::vector<std::string> arrived;
        std::shared_ptr<Stream> hostEndOfStream;
        std::shared_ptr<DatagramFlow> hostEndOfFlow;
        listener->onGroup = [&](std::shared_ptr<ConnectionGroup> group) {
            hostGroup.watch(std::move(group));
            hostGroup->onStream = [&](std::shared_ptr<Stream> stream) {
                arrived.push_back("stream");
                hostEndOfStream = std::move(stream);
            };
            hostGroup->onDatagramFlow = [&](std::shared_ptr<DatagramFlow> flow) {
                arrived.push_back("flow");
                hostEndOfFlow = std::move(flow);
            };
            hostGroup->start(driver->queue());
        };
        Watched<ConnectionGroup> group;
        connect(group);
        const auto stream = group->openStream();
        stream->start(driver->queue());
        stream->send(patternOf(400), nullptr);
        const auto flow = group->openDatagramFlow();
        flow->start(driver->queue());
        flow->send({shared({0})}, 0);
        await([&] { return arrived.size() == 2; });
        EXPECT_THAT(arrived, ::testing::ElementsAre("stream", "flow"));
    }
}

TEST_P(ConnectionGroupContractTest, aBurstOfDatagramsWaitsInTheSenderAndDrains) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    const auto flow = group->openDatagramFlow();
    int drained = 0;
    flow->onDrained = [&] { drained += 1; };
    flow->start(driver->queue());
    std::vector<SharedBytes> burst;
    std::size_t bytes = 0;
    for (int i = 0; i < 500; ++i) {
        burst.push_back(shared(patternOf(1000)));
        bytes += 1000;
    }
    flow->send(std::move(burst), 1);
    EXPECT_LE(flow->pendingBytes(), bytes);
    await([&] { return drained > 0 && flow->pendingBytes() == 0; });
    EXPECT_EQ(flow->statistics().bytesSent, bytes);
    EXPECT_EQ(flow->statistics().datagramsSent, 500u);
    // What was handed over before a cancel of the whole is dropped quietly; sending on is harmless.
    group->cancel();
    await([&] { return group.has(State::cancelled); });
    flow->send({shared({1})}, 1);
    EXPECT_EQ(flow->pendingBytes(), 0u);
    EXPECT_NE(flow->state(), State::ready);
}

TEST_P(ConnectionGroupContractTest, aDifferentCertificateThanThePinnedOneFailsTheGroup) {
    Watched<ConnectionGroup> group;
    group.watch(groupTo(port, QUICSetup::Pinned{std::string(64, 'A')}));
    const auto early = group->openStream();
    bool earlyFailed = false;
    early->start(driver->queue());
    early->send({1}, [&](const auto& error) { earlyFailed = error.has_value(); });
    group->start(driver->queue());
    await([&] { return group.has(State::failed) && earlyFailed; });
    EXPECT_TRUE(group.error && !group.error->text.empty());
    EXPECT_FALSE(group.has(State::ready));
    EXPECT_EQ(group->openStream(), nullptr);
    // Another viewer's way through shows that nothing of the first is still coming.
    Watched<ConnectionGroup> other;
    Watched<Stream> stream;
    connect(other, stream);
    EXPECT_EQ(groupsAccepted, 1);
}

TEST_P(ConnectionGroupContractTest, trustOnFirstUseDecidesByTheFingerprintPresented) {
    for (const bool accepts : {true, false}) {
        std::mutex lock;
        std::string presented;
        Watched<ConnectionGroup> group;
        group.watch(groupTo(port, QUICSetup::TrustOnFirstUse{[&, accepts](const std::string& fingerprint) {
                                const std::lock_guard guard(lock);
                                presented = fingerprint;
                                return accepts;
                            }}));
        group->start(driver->queue());
        await([&] { return group.has(accepts ? State::ready : State::failed); });
        const std::lock_guard guard(lock);
        EXPECT_EQ(presented, driver->fingerprint());
    }
}

TEST_P(ConnectionGroupContractTest, whatWasSentBeforeACancelIsReadBeforeTheEndIsTold) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    const Bytes last = patternOf(40'000);
    hostStream->send(last, nullptr);
    hostStream->cancel();
    hostStream->cancel();
    await([&] { return hostStream.has(State::cancelled); });
    EXPECT_EQ(hostStream.ends(), 1);
    EXPECT_EQ(readFrom(*stream.subject, 5).data.size(), 5u);
    EXPECT_EQ(stream.ends(), 0) << "the end overtook what was sent before it";
    const auto rest = readFrom(*stream.subject, 60'000);
    EXPECT_EQ(rest.data.size(), last.size() - 5);
    EXPECT_TRUE(rest.isComplete);
    EXPECT_FALSE(rest.error);
    // It was the host's last one, so the connection ends at both sides, cleanly.
    await(
        [&] { return group.has(State::cancelled) && hostGroup.has(State::cancelled) && stream.ends() == 1; });
    EXPECT_TRUE(stream.has(State::cancelled));
}

TEST_P(ConnectionGroupContractTest, cancellingAGroupLetsItsStreamsFlush) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    stream->send(bytesOf("bye"), nullptr);
    group->cancel();
    EXPECT_EQ(readFrom(*hostStream.subject, 3).data, bytesOf("bye"));
    EXPECT_TRUE(readFrom(*hostStream.subject, 1).isComplete);
    await([&] { return group.has(State::cancelled) && hostStream.has(State::cancelled); });
    EXPECT_EQ(group.ends(), 1);
    EXPECT_EQ(hostGroup.ends(), 1);
}

TEST_P(ConnectionGroupContractTest, afterTheEndEverythingStillAnswersWithAnError) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    bool readEnded = false, sendEnded = false;
    stream->receiveExactly(1, [&](const Stream::Received& received) {
        readEnded = received.error.has_value() || received.isComplete;
    });
    stream->cancel();
    await([&] { return stream.has(State::cancelled) && readEnded; });
    stream->send({1}, [&](const auto& error) { sendEnded = error.has_value(); });
    const auto late = readFrom(*stream.subject, 1);
    EXPECT_TRUE(late.data.empty());
    EXPECT_TRUE(late.error.has_value() || late.isComplete);
    await([&] { return sendEnded; });
    EXPECT_EQ(stream.ends(), 1);
    await([&] { return group.has(State::cancelled); });
    EXPECT_EQ(group->openStream(), nullptr);
}

TEST_P(ConnectionGroupContractTest, streamsAndFlowOutliveTheirGroupObjects) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    auto flow = group->openDatagramFlow();
    flow->start(driver->queue());
    flow->send({shared({1})}, 0);
    await([&] { return !hostDatagrams.empty(); });
    hostGroup = {};
    group = {};
    stream->send(bytesOf("still here"), nullptr);
    EXPECT_EQ(readFrom(*hostStream.subject, 10).data, bytesOf("still here"));
    flow->send({shared({2})}, 0);
    await([&] { return hostDatagrams.size() == 2; });
    // One end of the pair is not the end of the connection, the last one is.
    flow->cancel();
    stream->send(bytesOf("!"), nullptr);
    EXPECT_EQ(readFrom(*hostStream.subject, 1).data, bytesOf("!"));
    EXPECT_EQ(hostStream.ends(), 0);
    stream->cancel();
    EXPECT_TRUE(readFrom(*hostStream.subject, 1).isComplete);
    await([&] { return hostStream.has(State::cancelled) && hostFlow.has(State::cancelled); });
}

TEST_P(ConnectionGroupContractTest, aDroppedStreamIsCancelledAndCallsNothingAnyMore) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    Watched<Stream> second;
    second.watch(group->openStream());
    second->start(driver->queue());
    second->send({1}, nullptr);
    await([&] { return streamsArrived == 2 && second.has(State::ready); });
    // The host kept nothing of the second: it is over, the first goes on.
    EXPECT_TRUE(readFrom(*second.subject, 1).isComplete);
    int calls = 0;
    second->onState = [&](State, const auto&) { calls += 1; };
    second->receiveExactly(1, [&](const auto&) { calls += 1; });
    second->send({2}, [&](const auto&) { calls += 1; });
    second.subject.reset();
    stream->send({3}, nullptr);
    EXPECT_EQ(readFrom(*hostStream.subject, 1).data, Bytes{3});
    EXPECT_EQ(calls, 0);
}

TEST_P(ConnectionGroupContractTest, aStreamTowardsAGroupThatTakesNoneComesToNothing) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    const auto unwanted = hostGroup->openStream();
    unwanted->start(driver->queue());
    unwanted->send({1}, nullptr);
    const auto answer = readFrom(*unwanted, 1);
    EXPECT_TRUE(answer.isComplete || answer.error);
    stream->send({2}, nullptr);
    EXPECT_EQ(readFrom(*hostStream.subject, 1).data, Bytes{2});
}

TEST_P(ConnectionGroupContractTest, aStreamOpenedBeforeTheGroupIsReadySendsOnceItIs) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    group.watch(groupTo(port, QUICSetup::Pinned{driver->fingerprint()}));
    stream.watch(group->openStream());
    stream->start(driver->queue());
    stream->send(bytesOf("early"), nullptr);
    EXPECT_EQ(group->openDatagramFlow(), nullptr);
    group->start(driver->queue());
    await([&] { return hostStream.subject != nullptr; });
    EXPECT_EQ(readFrom(*hostStream.subject, 5).data, bytesOf("early"));
    EXPECT_TRUE(stream.has(State::ready));
}

TEST_P(ConnectionGroupContractTest, aGroupMayBeDroppedInItsOwnCallback) {
    listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) {
        groupsAccepted += 1;
        hostGroup.subject = std::move(group);
        hostGroup->onState = [this, padding = Bytes(100, 1)](State, const auto&) {
            hostGroup.subject.reset();
            groupsAccepted += static_cast<int>(padding.size());
        };
        hostGroup->start(driver->queue());
    };
    Watched<ConnectionGroup> group;
    connect(group);
    await([&] { return groupsAccepted == 101; });
    // Nothing of the connection is left at the host, so it ends.
    await([&] { return group.ends() == 1; });
}

TEST_P(ConnectionGroupContractTest, aPortIsListenedOnOnce) {
    const auto second = driver->stack().listenOn(port, {.identity = driver->identity()});
    std::optional<TransportError> error;
    second->onState = [&](State state, const auto& why) {
        if (state == State::failed) error = why;
    };
    second->start(driver->queue());
    await([&] { return error.has_value(); });
    EXPECT_EQ(error->code, EADDRINUSE);
    EXPECT_EQ(second->state(), State::failed);

    bool cancelled = false;
    listener->onState = [&](State state, const auto&) { cancelled = state == State::cancelled; };
    listener->cancel();
    await([&] { return cancelled; });
    const auto third = driver->stack().listenOn(port, {.identity = driver->identity()});
    third->start(driver->queue());
    await([&] { return third->state() == State::ready; });
}

TEST_P(ConnectionGroupContractTest, groupsHandedOverOutliveTheirListener) {
    Watched<ConnectionGroup> group;
    Watched<Stream> stream;
    connect(group, stream);
    listener->cancel();
    listener.reset();
    stream->send({4}, nullptr);
    EXPECT_EQ(readFrom(*hostStream.subject, 1).data, Bytes{4});
}

/// The simulated link, in virtual time.
class SimulatedDriver final : public TransportDriver {
public:
    TransportStack& stack() override { return link_; }
    Queue& queue() override { return queue_; }
    bool waitUntil(const std::function<bool()>& condition) override {
        return time_.advanceUntil(condition, 15s);
    }
    TransportIdentity identity() override {
        return {.certificate = bytesOf(fingerprint()), .privateKey = {}};
    }
    std::string fingerprint() override { return std::string(64, 'F'); }
    std::uint16_t freePort() override { return nextPort_++; }

private:
    VirtualTime time_;
    SimulatedLink link_{time_};
    VirtualQueue queue_{time_};
    std::uint16_t nextPort_ = 47272;
};

/// QUIC over the loopback, in real time.
class QuicDriver final : public TransportDriver {
public:
    TransportStack& stack() override { return *stack_; }
    Queue& queue() override { return queue_; }
    bool waitUntil(const std::function<bool()>& condition) override {
        // Some of what is waited for (a count of acknowledgements) changes without a callback.
        for (const auto end = HostClock::now() + 15s; HostClock::now() < end;) {
            if (queue_.runUntil(condition, 5ms)) return true;
        }
        return false;
    }
    TransportIdentity identity() override { return testIdentity().identity; }
    std::string fingerprint() override { return testIdentity().fingerprint; }
    std::uint16_t freePort() override { return UdpSocket::bindTo(0).value()->port(); }

private:
    PumpedQueue queue_;
    std::unique_ptr<NetworkStack> stack_ = makeQuicTransportStack();
};

INSTANTIATE_TEST_SUITE_P(Quic, ConnectionGroupContractTest,
                         ::testing::Values(TransportDriverMaker([]() -> std::unique_ptr<TransportDriver> {
                             return std::make_unique<QuicDriver>();
                         })));

INSTANTIATE_TEST_SUITE_P(Simulated, ConnectionGroupContractTest,
                         ::testing::Values(TransportDriverMaker([]() -> std::unique_ptr<TransportDriver> {
                             return std::make_unique<SimulatedDriver>();
                         })));

}  // namespace
}  // namespace velmora
