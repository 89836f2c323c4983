#include "Platform/Linux/Network/QuicTransportStack.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Platform/Linux/Network/LocalPort.h"
#include "Platform/Linux/Network/QuicConnection.h"
#include "Platform/Linux/Network/QuicSession.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Testing/PumpedQueue.h"
#include "Testing/UdpLinkEmulator.h"
#include "Tests/RawUdpSocket.h"
#include "Tests/TestIdentity.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using State = TransportState;

/// A host that sends back what it reads, and viewers, over real sockets of the loopback. What the contract of
/// a connection group asks is tested in Tests/Contracts; here is what only sockets and strangers bring.
class QuicTransportStackTest : public ::testing::Test {
protected:
    struct Session {
        std::shared_ptr<ConnectionGroup> group;
        std::shared_ptr<Stream> stream;
        std::shared_ptr<DatagramFlow> flow;
        Bytes echoed;
        std::vector<Bytes> datagrams;
        std::optional<State> end;
        std::optional<TransportError> error;
    };

    std::unique_ptr<Listener> listen(std::uint16_t port) {
        auto listener = stack->listenOn(port, {.identity = testIdentity().identity});
        listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) { serve(std::move(group)); };
        listener->onState = [this](State state, const auto& error) {
            listenerState = state;
            listenerError = error;
        };
        listenerState = State::setup;
        listener->start(queue);
        await([this] { return listenerState == State::ready || listenerState == State::failed; });
        return listener;
    }
    void serve(std::shared_ptr<ConnectionGroup> group) {
        served.push_back(std::make_unique<Session>());
        Session& session = *served.back();
        session.group = std::move(group);
        session.group->onStream = [this, &session](std::shared_ptr<Stream> stream) {
            session.stream = std::move(stream);
            session.stream->onState = [&session](State state, const auto&) {
                if (state == State::cancelled || state == State::failed) session.end = state;
            };
            session.stream->start(queue);
            echo(session);
        };
        session.group->onDatagramFlow = [this, &session](std::shared_ptr<DatagramFlow> flow) {
            session.flow = std::move(flow);
            session.flow->start(queue);
        };
        session.group->start(queue);
    }
    void echo(Session& session) {
        session.stream->receiveExactly(1, [this, &session](Stream::Received received) {
            if (received.data.empty()) return;
            session.stream->send(std::move(received.data), nullptr);
            echo(session);
        });
    }

    std::unique_ptr<Session> connectTo(const Endpoint& endpoint,
                                       std::optional<std::uint16_t> localPort = {}) {
        auto session = std::make_unique<Session>();
        session->group = stack->connectTo(
            endpoint,
            {.verification = QUICSetup::Pinned{testIdentity().fingerprint}, .localPort = localPort});
        session->group->onState = [s = session.get()](State state, const auto& error) {
            if (state == State::failed || state == State::cancelled) s->end = state;
            if (error) s->error = error;
        };
        session->stream = session->group->openStream();
        session->stream->start(queue);
        hear(*session);
        session->group->start(queue);
        return session;
    }
    std::unique_ptr<Session> connectTo(std::uint16_t port) {
        return connectTo(Endpoint::hostPort("127.0.0.1", port));
    }
    void hear(Session& session) {
        session.stream->receiveExactly(1, [this, &session](Stream::Received received) {
            if (received.data.empty()) return;
            session.echoed.push_back(received.data[0]);
            hear(session);
        });
    }
    /// The host answers over the connection.
    void exchangeBytes(Session& session, std::string_view text) {
        session.echoed.clear();
        session.stream->send(bytesOf(text), nullptr);
        await([&] { return session.echoed.size() == text.size(); });
        EXPECT_EQ(textOf(session.echoed), text);
    }
    void openFlow(Session& session) {
        session.flow = session.group->openDatagramFlow();
        session.flow->onDatagram = [&session](Bytes data) { session.datagrams.push_back(std::move(data)); };
        session.flow->start(queue);
        session.flow->send({std::make_shared<const Bytes>(1)}, 0);
        await([&] { return served.back()->flow != nullptr; });
    }
    /// Throws, which ends the test as failed: nothing after it could make sense.
    void await(const std::function<bool()>& condition, HostClock::duration limit = 15s) {
        for (const auto end = HostClock::now() + limit; HostClock::now() < end;) {
            if (queue.runUntil(condition, 5ms)) return;
        }
        throw std::runtime_error("waited in vain");
    }
    UdpPort::Outcome exchange(
        UdpPort::Datagram datagram, const std::function<void()>& meanwhile = [] {}) {
        std::optional<UdpPort::Outcome> outcome;
        stack->exchange(std::move(datagram), queue,
                        [&](UdpPort::Outcome result) { outcome.emplace(std::move(result)); });
        meanwhile();
        await([&] { return outcome.has_value(); });
        return *outcome;
    }
    static std::uint16_t freePort() { return UdpSocket::bindTo(0).value()->port(); }

    PumpedQueue queue;
    ServiceResolver resolver;
    std::unique_ptr<NetworkStack> stack = makeQuicTransportStack(
        [this](const Endpoint& service, auto completion) { resolver(service, completion); });
    State listenerState = State::setup;
    std::optional<TransportError> listenerError;
    std::vector<std::unique_ptr<Session>> served;
};

TEST_F(QuicTransportStackTest, aPortHeldByAnotherProgramFailsWithTheSystemsNumber) {
    std::uint16_t port = 0;
    {
        RawUdpSocket other(0, INADDR_ANY);
        port = other.port();
        const auto listener = listen(port);
        EXPECT_EQ(listenerState, State::failed);
        ASSERT_TRUE(listenerError);
        EXPECT_EQ(listenerError->code, EADDRINUSE);
    }
    const auto listener = listen(port);
    EXPECT_EQ(listenerState, State::ready);
    exchangeBytes(*connectTo(port), "a");
}

TEST_F(QuicTransportStackTest, aRestartedListenerSharesItsPortWithConnectionsThatLiveOn) {
    const auto port = freePort();
    auto listener = listen(port);
    auto first = connectTo(port);
    exchangeBytes(*first, "one");
    listener.reset();
    exchangeBytes(*first, "still");
    EXPECT_EQ(RawUdpSocket(port, INADDR_ANY).bindError(), EADDRINUSE) << "somebody else could take the port";
    listener = listen(port);
    ASSERT_EQ(listenerState, State::ready);
    auto second = connectTo(port);
    exchangeBytes(*second, "two");
    exchangeBytes(*first, "both");

    listener.reset();
    first.reset();
    second.reset();
    await([&] { return served[0]->end && served[1]->end; });
    served.clear();
    await([&] { return RawUdpSocket(port, INADDR_ANY).bindError() == 0; }, 5s);
}

TEST_F(QuicTransportStackTest, strangersPacketsHurtNeitherSide) {
    const auto port = freePort();
    const auto listener = listen(port);
    auto session = connectTo(port);
    exchangeBytes(*session, "hello");
    openFlow(*session);
    const std::string viewer = served.back()->stream->remoteDescription();
    const auto viewerPort = static_cast<std::uint16_t>(std::stoi(viewer.substr(viewer.rfind(':') + 1)));
    RawUdpSocket stranger;
    std::mt19937 random(1);
    for (int i = 0; i < 4000; ++i) {
        Bytes junk(random() % 1400);
        for (auto& byte : junk) byte = static_cast<std::uint8_t>(random());
        if (!junk.empty() && i % 4 == 0) junk[0] |= 0xc0;
        if (junk.size() > 5 && i % 16 == 0) std::fill(junk.begin() + 1, junk.begin() + 5, 0), junk[4] = 1;
        stranger.send(junk, i % 2 == 0 ? port : viewerPort);
        if (i % 200 == 0) {
            exchangeBytes(*session, "alive");
            served.back()->flow->send({std::make_shared<const Bytes>(1000, std::uint8_t{1})}, 1);
        }
    }
    stranger.send({}, port);
    stranger.send(bytesOf("VLPUNCH"), port);
    stranger.send(bytesOf("VLACK"), port);
    stranger.send(bytesOf("VLREG0123456789abcdef0123456789abcdef"), port);
    await([&] { return session->datagrams.size() == 20; });
    EXPECT_FALSE(session->end);
    // Version negotiation, a few times; no stateless resets, which would let strangers fish for them.
    int answers = 0;
    while (const auto answer = stranger.receive(50ms)) {
        answers += 1;
        ASSERT_GT(answer->bytes.size(), 5u);
        EXPECT_TRUE(answer->bytes[0] & 0x80);
        EXPECT_EQ(Bytes(answer->bytes.begin() + 1, answer->bytes.begin() + 5), Bytes(4));
    }
    EXPECT_LE(answers, 40);
}

TEST_F(QuicTransportStackTest, aCrowdOfStrangersLeavesRoomForAViewer) {
    const auto port = freePort();
    const auto listener = listen(port);
    struct Nobody : QuicConnection::Observer {
        void onReady() override {}
        void onStreamData(std::int64_t, ByteView, bool) override {}
        void onStreamReset(std::int64_t, std::uint64_t) override {}
        void onDatagram(ByteView) override {}
        void onDatagramLost(std::uint64_t) override {}
        void onConnectionId(std::string_view) override {}
        void onConnectionIdRetired(std::string_view) override {}
        void onEnd(const QuicConnection::End&) override {}
    } nobody;
    const auto tls = QuicTls::forClient(std::nullopt).value();
    RawUdpSocket stranger;
    std::size_t retries = 0;
    const auto countRetries = [&](std::chrono::milliseconds limit) {
        while (const auto answer = stranger.receive(limit)) retries += answer->bytes.size() < 300;
    };
    for (int i = 0; i < 300; ++i) {
        const auto now = HostClock::now();
        auto silent =
            QuicConnection::connectTo(*SocketAddress::parse("127.0.0.1", port), {}, tls, nobody, {}, now);
        PacketBatch first;
        silent.value()->write(first, now);
        stranger.send(first.bytes(first.packets()[0]), port);
        countRetries(0ms);
    }
    auto session = connectTo(port);
    exchangeBytes(*session, "let me in");
    countRetries(20ms);
    EXPECT_GE(retries, 200u);
}

TEST_F(QuicTransportStackTest, followsAViewerWhoseNatForgetsIt) {
    const auto port = freePort();
    const auto listener = listen(port);
    UdpLinkEmulator nat(port, {.toHost = {.delay = 5ms}, .toViewer = {.delay = 5ms}});
    auto session = connectTo(nat.port());
    exchangeBytes(*session, "before");
    openFlow(*session);
    const auto send = [&](int count) {
        std::vector<SharedBytes> frame(static_cast<std::size_t>(count), std::make_shared<const Bytes>(1000));
        served.back()->flow->send(std::move(frame), 1);
    };
    send(50);
    await([&] { return session->datagrams.size() == 50; });
    nat.changePort();
    exchangeBytes(*session, "after");
    send(50);
    await([&] { return session->datagrams.size() == 100; });
    EXPECT_FALSE(session->end);
}

TEST_F(QuicTransportStackTest, singleDatagramsShareThePortOfAListener) {
    const auto port = freePort();
    const auto listener = listen(port);
    auto session = connectTo(port);
    exchangeBytes(*session, "busy");
    RawUdpSocket server;

    // A STUN request: only the answer with its transaction counts, wherever it comes from.
    Bytes request{0, 1, 0, 0, 0x21, 0x12, 0xa4, 0x42, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    auto reply = exchange({port, "127.0.0.1", server.port(), request, 2s}, [&] {
        const auto asked = server.receive();
        ASSERT_TRUE(asked);
        EXPECT_EQ(asked->fromPort, port);
        EXPECT_EQ(asked->bytes, request);
        Bytes answer = request;
        answer[0] = 1;
        RawUdpSocket elsewhere;
        elsewhere.send(bytesOf("not for you"), port);
        elsewhere.send(answer, port);
    });
    ASSERT_TRUE(reply && *reply);
    EXPECT_EQ((**reply)[0], 1);

    reply = exchange({port, "localhost", server.port(), bytesOf("VLREGtoken"), 2s}, [&] {
        EXPECT_EQ(server.receive()->bytes, bytesOf("VLREGtoken"));
        server.send(bytesOf("VLPUNCH"), port);  // answers nothing
        server.send(bytesOf("VLACK"), port);
    });
    ASSERT_TRUE(reply && *reply);
    EXPECT_EQ(**reply, bytesOf("VLACK"));

    reply = exchange({port, "127.0.0.1", server.port(), bytesOf("VLPUNCH"), 0ms});
    EXPECT_TRUE(reply && !*reply);
    EXPECT_EQ(server.receive()->bytes, bytesOf("VLPUNCH"));
    reply = exchange({port, "127.0.0.1", server.port(), bytesOf("anyone?"), 20ms});
    EXPECT_TRUE(reply && !*reply);
    EXPECT_FALSE(exchange({port, "no-such-host.invalid", 1, bytesOf("x"), 0ms}));
    exchangeBytes(*session, "unharmed");
}

TEST_F(QuicTransportStackTest, isReachedOnEveryAddressOfTheMachine) {
    const auto port = freePort();
    const auto listener = listen(port);
    for (const char* address : {"127.0.0.1", "127.0.0.2", "::1", "localhost"}) {
        auto session = connectTo(Endpoint::hostPort(address, port));
        exchangeBytes(*session, address);
        EXPECT_EQ(session->stream->interfaceDescription(), "lo (loopback)");
    }
    EXPECT_THAT(served[1]->stream->remoteDescription(), ::testing::StartsWith("127.0.0."));
    EXPECT_THAT(served[2]->stream->remoteDescription(), ::testing::StartsWith("[::1]:"));
}

TEST_F(QuicTransportStackTest, aConnectionLeavesFromThePortThatWasProbed) {
    const auto port = freePort();
    const auto listener = listen(port);
    const auto local = freePort();
    RawUdpSocket server;
    EXPECT_TRUE(exchange({local, "127.0.0.1", server.port(), bytesOf("open"), 0ms}));
    EXPECT_EQ(server.receive()->fromPort, local);
    auto one = connectTo(Endpoint::hostPort("127.0.0.1", port), local);
    auto two = connectTo(Endpoint::hostPort("localhost", port), local);
    exchangeBytes(*one, "first");
    exchangeBytes(*two, "second");
    for (const auto& session : served)
        EXPECT_TRUE(session->stream->remoteDescription().ends_with(":" + std::to_string(local)));
}

TEST_F(QuicTransportStackTest, servicesAreFoundThroughTheResolverAndFailuresTold) {
    const auto port = freePort();
    const auto listener = listen(port);
    const auto service = Endpoint::service("Studio", "_velmora._udp", "local.");
    resolver = [&](const Endpoint& asked, auto completion) {
        EXPECT_EQ(asked, service);
        completion(Endpoint::hostPort("127.0.0.1", port));
    };
    exchangeBytes(*connectTo(service), "found");
    resolver = [](const Endpoint&, auto completion) { completion(Failure{"nobody there"}); };
    auto lost = connectTo(service);
    auto nameless = connectTo(Endpoint::hostPort("no-such-host.invalid", 1));
    auto unsendable = connectTo(Endpoint::hostPort("255.255.255.255", 9));
    await([&] { return lost->end && nameless->end && unsendable->end; });
    EXPECT_EQ(*lost->end, State::failed);
    EXPECT_EQ(lost->error->text, "nobody there");
    EXPECT_EQ(*nameless->end, State::failed);
    EXPECT_THAT(unsendable->error->code, ::testing::AnyOf(EACCES, ENETUNREACH));
}

TEST_F(QuicTransportStackTest, triesTheNextAddressWhenOneCannotBeReached) {
    const auto port = freePort();
    const auto listener = listen(port);
    const auto loop = std::make_shared<NetworkLoop>("test");
    LocalPorts ports(loop);
    const auto session = std::make_shared<QuicSession>(loop, QuicConnection::Parameters{});
    const auto group = std::make_shared<QuicGroup>(session, [&] {
        const auto tls = QuicTls::forClient(QUICSetup::Pinned{testIdentity().fingerprint}).value();
        session->connectTo(
            {*SocketAddress::parse("255.255.255.255", 9), *SocketAddress::parse("127.0.0.1", port)},
            *ports.open(0).value(), tls, HostClock::now());
    });
    group->start(queue);
    await([&] { return group->state() == State::ready; });
    EXPECT_EQ(group->remoteDescription(), "127.0.0.1:" + std::to_string(port));
    loop->finish([] { return true; }, {}, [&] { ports.closeAll(); });
}

TEST_F(QuicTransportStackTest, theStacksEndEndsEverythingCleanlyAndHandlesOutliveIt) {
    auto other = makeQuicTransportStack();
    const auto port = freePort();
    const auto listener = listen(port);
    auto session = connectTo(port);
    exchangeBytes(*session, "hi");
    const auto leaving = other->connectTo(Endpoint::hostPort("127.0.0.1", port),
                                          {.verification = QUICSetup::Pinned{testIdentity().fingerprint}});
    leaving->start(queue);
    auto stream = leaving->openStream();
    stream->start(queue);
    stream->send(bytesOf("x"), nullptr);
    await([&] { return served.size() == 2 && served[1]->stream; });
    other.reset();
    await([&] { return served[1]->end.has_value(); });
    EXPECT_EQ(served[1]->end, State::cancelled);
    await([&] { return stream->state() == State::cancelled; });
    bool told = false;
    stream->send(bytesOf("y"), [&](const auto& error) { told = error.has_value(); });
    await([&] { return told; });
    exchangeBytes(*session, "others go on");
}

}  // namespace
}  // namespace velmora
