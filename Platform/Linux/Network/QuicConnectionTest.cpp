#include "Platform/Linux/Network/QuicConnection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Platform/Linux/Network/QuicAdmission.h"
#include "Tests/TestIdentity.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using TimePoint = HostClock::time_point;

/// One end, with everything it was told.
struct End : QuicConnection::Observer {
    std::unique_ptr<QuicConnection> connection;
    SocketAddress address;
    bool ready = false;
    std::map<std::int64_t, Bytes> streams;
    std::vector<std::int64_t> finished;
    std::vector<Bytes> datagrams;
    std::vector<std::uint64_t> lostTags;
    std::optional<QuicConnection::End> end;

    void onReady() override { ready = true; }
    void onStreamData(std::int64_t stream, ByteView data, bool isLast) override {
        auto& received = streams[stream];
        received.insert(received.end(), data.begin(), data.end());
        if (isLast) finished.push_back(stream);
    }
    void onStreamReset(std::int64_t, std::uint64_t) override {}
    void onDatagram(ByteView data) override { datagrams.emplace_back(data.begin(), data.end()); }
    void onDatagramLost(std::uint64_t tag) override { lostTags.push_back(tag); }
    void onConnectionId(std::string_view) override {}
    void onConnectionIdRetired(std::string_view) override {}
    void onEnd(const QuicConnection::End& why) override { end = why; }
};

/// A viewer and a host in one process, in virtual time: packets travel for `delay` unless `drops` says so.
class QuicConnectionTest : public ::testing::Test {
protected:
    struct Flying {
        Bytes bytes;
        End* to;
        SocketAddress from;
    };

    void begin(const QuicConnection::Parameters& hostParameters = {},
               std::string_view viewerProtocol = QUICSetup::alpn) {
        viewer.address = *SocketAddress::parse("192.0.2.7", 50000);
        host.address = *SocketAddress::parse("192.0.2.1", 47272);
        hostParameters_ = hostParameters;
        hostTls = QuicTls::forServer(testIdentity().identity).value();
        const QUICSetup::Verification pinned = QUICSetup::Pinned{fingerprint};
        auto tls = QuicTls::forClient(pinned, viewerProtocol).value();
        viewer.connection = QuicConnection::connectTo(host.address, viewer.address, std::move(tls), viewer,
                                                      viewerParameters, now)
                                .value();
        pump();
    }
    void beginReady(QuicConnection::Parameters hostParameters = {}) {
        begin(hostParameters);
        advanceUntil([&] { return viewer.ready && host.ready; }, 2s);
        advanceBy(300ms);  // packet sizes of the path are found
    }

    /// Everything both ends want to send now goes on its way.
    void pump() {
        for (End* end : {&viewer, &host}) {
            if (!end->connection) continue;
            PacketBatch batch;
            end->connection->write(batch, now);
            send(*end, batch);
        }
    }
    void send(End& from, PacketBatch& batch) {
        End& to = &from == &viewer ? host : viewer;
        for (const auto& packet : batch.packets()) {
            const ByteView bytes = batch.bytes(packet);
            (&from == &host ? bytesFromHost : bytesFromViewer) += bytes.size();
            if (drops && drops(from, bytes)) continue;
            flying.emplace(now + delay, Flying{{bytes.begin(), bytes.end()}, &to, from.address});
        }
    }
    void arrive(Flying packet) {
        End& to = *packet.to;
        if (!to.connection && &to == &host) {
            PacketBatch answers;
            const auto initial = admission.consider(packet.bytes, packet.from, halfOpen, answers, now);
            send(host, answers);
            if (!initial) return;
            accepted += 1;
            host.connection = QuicConnection::accept(*initial, packet.from, host.address, hostTls, host,
                                                     hostParameters_, now)
                                  .value();
        }
        to.connection->receive(packet.bytes, packet.from, now);
    }
    std::optional<TimePoint> nextEvent() const {
        std::optional<TimePoint> next;
        const auto consider = [&](TimePoint time) { next = std::min(next.value_or(time), time); };
        if (!flying.empty()) consider(flying.begin()->first);
        for (const End* end : {&viewer, &host}) {
            if (end->connection && end->connection->deadline() != TimePoint::max())
                consider(end->connection->deadline());
        }
        return next;
    }
    template <class F>
    bool advanceUntil(F condition, HostClock::duration limit) {
        const auto last = now + limit;
        pump();
        while (!condition()) {
            const auto next = nextEvent();
            if (!next || *next > last) break;
            now = std::max(now + 1us, *next);
            while (!flying.empty() && flying.begin()->first <= now) {
                Flying packet = std::move(flying.begin()->second);
                flying.erase(flying.begin());
                arrive(std::move(packet));
            }
            for (End* end : {&viewer, &host}) {
                if (!end->connection) continue;
                if (end->connection->deadline() <= now) end->connection->handleDeadline(now);
                if (end->connection->isGone()) end->connection.reset();
            }
            pump();
        }
        if (!condition()) now = last;
        return condition();
    }
    void advanceBy(HostClock::duration span) {
        advanceUntil([] { return false; }, span);
    }

    std::vector<SharedBytes> datagramsOf(std::size_t count, std::size_t size) {
        return std::vector<SharedBytes>(count, std::make_shared<const Bytes>(size, std::uint8_t{0x5a}));
    }

    std::string fingerprint = testIdentity().fingerprint;
    TimePoint now{1000s};
    HostClock::duration delay = 20ms;
    std::function<bool(const End& from, ByteView packet)> drops;
    std::multimap<TimePoint, Flying> flying;
    QuicAdmission admission{{}};
    std::size_t halfOpen = 0;
    int accepted = 0;
    std::uint64_t bytesFromHost = 0, bytesFromViewer = 0;
    std::shared_ptr<const QuicTls> hostTls;
    QuicConnection::Parameters viewerParameters, hostParameters_;
    End viewer, host;
};

/// The window is full of datagrams and every acknowledgement of them is lost for 400 ms. The library alone
/// then has no timer that would ever send again.
class LostAcknowledgementTest : public QuicConnectionTest {
protected:
    void fillWindowAndLoseAcknowledgements(QuicConnection::Parameters parameters) {
        beginReady(parameters);
        bool dead = true;
        drops = [&](const End& from, ByteView) { return dead && &from == &viewer; };
        host.connection->queueDatagrams(datagramsOf(2000, 1100), 1, now);
        advanceBy(400ms);
        ASSERT_GT(host.connection->pendingDatagramBytes(), 0u) << "the window was never full";
        dead = false;
        arrivedBefore = viewer.datagrams.size();
        stream = viewer.connection->openStream().value();
        viewer.connection->sendOnStream(stream, bytesOf("still there?"));
        advanceUntil([&] { return host.streams.contains(stream); }, 5s);
        host.connection->sendOnStream(stream, bytesOf("yes"));
        advanceBy(15s);
    }
    std::size_t arrivedBefore = 0;
    std::int64_t stream = -1;
};

TEST_F(LostAcknowledgementTest, theLibraryAloneStallsForGood) {
    fillWindowAndLoseAcknowledgements({.anchorDatagrams = false});
    // Should this fail one day, a library update has mended it, and the anchors can go.
    EXPECT_EQ(viewer.datagrams.size(), arrivedBefore);
    EXPECT_TRUE(viewer.streams[stream].empty()) << "the stream suffers with the datagrams";
    EXPECT_FALSE(host.end) << "no time-out ends it either";
}

TEST_F(LostAcknowledgementTest, anAnchorInEveryPacketRecovers) {
    fillWindowAndLoseAcknowledgements({});
    EXPECT_EQ(viewer.streams[stream], bytesOf("yes"));
    EXPECT_EQ(host.connection->pendingDatagramBytes(), 0u);
    EXPECT_GT(viewer.datagrams.size(), arrivedBefore);
    EXPECT_FALSE(host.end);
}

TEST_F(QuicConnectionTest, carriesVideoForMinutesOverALossyPath) {
    beginReady();
    unsigned random = 1;
    drops = [&](const End&, ByteView) {
        return (random = random * 1664525 + 1013904223) >> 8 < (1u << 24) / 50;
    };
    std::size_t longestSilence = 0, silence = 0;
    for (int frame = 0; frame < 60 * 120; ++frame) {
        const auto before = viewer.datagrams.size();
        host.connection->queueDatagrams(datagramsOf(8, 1100), frame + 1, now);
        advanceBy(16'667us);
        silence = viewer.datagrams.size() == before ? silence + 1 : 0;
        longestSilence = std::max(longestSilence, silence);
        viewer.datagrams.clear();
    }
    EXPECT_LT(longestSilence, 15u);  // a quarter of a second
    const auto statistics = host.connection->statistics();
    EXPECT_NEAR(static_cast<double>(statistics.datagramsLost) / static_cast<double>(statistics.datagramsSent),
                0.02, 0.01);
    EXPECT_EQ(host.lostTags.size(), statistics.datagramsLost);
    EXPECT_GE(statistics.datagramsAcked + statistics.datagramsLost + 20, statistics.datagramsSent);
    EXPECT_NEAR(static_cast<double>(statistics.minRtt.count()), 40'000, 2'000);
}

TEST_F(QuicConnectionTest, whatAnOutageTookIsToldWhenItIsOver) {
    beginReady();
    const auto stream = viewer.connection->openStream().value();
    drops = [](const End&, ByteView) { return true; };
    host.connection->queueDatagrams(datagramsOf(3, 1100), 1, now);
    advanceBy(50ms);
    host.connection->queueDatagrams(datagramsOf(1, 100), 2, now);
    for (int second = 0; second < 3; ++second) {
        viewer.connection->sendOnStream(stream, bytesOf("ping"));
        advanceBy(1s);
    }
    drops = nullptr;
    for (int second = 0; second < 3; ++second) {
        viewer.connection->sendOnStream(stream, bytesOf("ping"));
        advanceBy(100ms);
        host.connection->sendOnStream(stream, bytesOf("pong"));
        advanceBy(900ms);
    }
    EXPECT_EQ(host.lostTags, (std::vector<std::uint64_t>{1, 1, 1, 2}));
}

TEST_F(QuicConnectionTest, streamsGoAheadOfQueuedDatagrams) {
    beginReady();
    const auto stream = viewer.connection->openStream().value();
    viewer.connection->sendOnStream(stream, bytesOf("hello"));
    advanceUntil([&] { return host.streams.contains(stream); }, 1s);
    host.connection->queueDatagrams(datagramsOf(3000, 1100), 1, now);
    advanceBy(10ms);
    host.connection->sendOnStream(stream, bytesOf("now"));
    const auto sent = now;
    ASSERT_TRUE(advanceUntil([&] { return viewer.streams[stream].size() == 3; }, 5s));
    EXPECT_LT(now - sent, delay + 60ms);
    EXPECT_GT(host.connection->pendingDatagramBytes(), 0u);
}

TEST_F(QuicConnectionTest, aLongMessageTakesTurnsWithQueuedDatagrams) {
    beginReady();
    const auto stream = viewer.connection->openStream().value();
    viewer.connection->sendOnStream(stream, bytesOf("hello"));
    advanceUntil([&] { return host.streams.contains(stream); }, 1s);
    viewer.connection->grantStream(stream, 10'000'000);
    host.connection->sendOnStream(stream, Bytes(5'000'000));
    host.connection->queueDatagrams(datagramsOf(500, 1100), 1, now);
    ASSERT_TRUE(advanceUntil([&] { return viewer.datagrams.size() == 500; }, 5s));
    EXPECT_GT(viewer.streams[stream].size(), 400'000u);
    EXPECT_LT(viewer.streams[stream].size(), 1'000'000u);
    EXPECT_TRUE(advanceUntil([&] { return viewer.streams[stream].size() == 5'000'000; }, 10s));
}

TEST_F(QuicConnectionTest, aStreamThatNobodyReadsHoldsUpNeitherDatagramsNorItsEnd) {
    beginReady();
    const auto stream = viewer.connection->openStream().value();
    viewer.connection->sendOnStream(stream, bytesOf("hello"));
    advanceUntil([&] { return host.streams.contains(stream); }, 1s);
    host.connection->sendOnStream(stream, Bytes(200'000));
    advanceBy(1s);
    ASSERT_EQ(viewer.streams[stream].size(), 64u * 1024);
    host.connection->queueDatagrams(datagramsOf(100, 1100), 1, now);
    advanceBy(1s);
    EXPECT_EQ(viewer.datagrams.size(), 100u);
    host.connection->finishStream(stream);
    viewer.connection->grantStream(stream, 200'000);
    EXPECT_TRUE(advanceUntil([&] { return !viewer.finished.empty(); }, 2s));
    EXPECT_EQ(viewer.streams[stream].size(), 200'000u);
    EXPECT_TRUE(advanceUntil([&] { return host.connection->isStreamDelivered(stream); }, 1s));
}

TEST_F(QuicConnectionTest, neverHandsTheLibraryADatagramItCannotCarry) {
    beginReady();
    const auto usable = host.connection->usableDatagramSize().value();
    EXPECT_EQ(usable, QUICSetup::maxDatagramFrameSize - 3);  // the path carries more than we allow
    auto mixed = datagramsOf(1, usable);
    mixed.push_back(nullptr);
    mixed.push_back(std::make_shared<const Bytes>());
    for (auto& more : {datagramsOf(1, usable + 1), datagramsOf(1, 5000), datagramsOf(1, 1)})
        mixed.insert(mixed.end(), more.begin(), more.end());
    host.connection->queueDatagrams(std::move(mixed), 1, now);
    advanceBy(100ms);
    ASSERT_EQ(viewer.datagrams.size(), 2u);
    EXPECT_EQ(viewer.datagrams[0].size(), usable);
    EXPECT_EQ(viewer.datagrams[1].size(), 1u);
    EXPECT_EQ(host.connection->statistics().datagramsDropped, 2u);
    EXPECT_EQ(host.connection->pendingDatagramBytes(), 0u);
}

TEST_F(QuicConnectionTest, dropsDatagramsThatANarrowPathCannotCarry) {
    drops = [](const End&, ByteView packet) { return packet.size() > 1300; };
    beginReady();
    const auto usable = host.connection->usableDatagramSize().value();
    EXPECT_LT(usable, 1300u);
    EXPECT_GE(usable, QUICSetup::defaultDatagramPayload);
    // The library answers "not now" to one that is too large, for ever: it must not get it.
    auto mixed = datagramsOf(1, usable + 1);
    for (auto& more : {datagramsOf(3, usable), datagramsOf(1, 1300)})
        mixed.insert(mixed.end(), more.begin(), more.end());
    host.connection->queueDatagrams(std::move(mixed), 1, now);
    advanceBy(200ms);
    EXPECT_EQ(viewer.datagrams.size(), 3u);
    EXPECT_EQ(host.connection->statistics().datagramsDropped, 2u);
    EXPECT_EQ(host.connection->pendingDatagramBytes(), 0u);
}

TEST_F(QuicConnectionTest, aPeerThatNobodyReadsCanSendOneWindowAndNoMore) {
    beginReady();
    std::vector<std::int64_t> opened;
    while (const auto stream = viewer.connection->openStream()) {
        viewer.connection->sendOnStream(*stream, Bytes(1 << 20));
        opened.push_back(*stream);
    }
    EXPECT_EQ(opened.size(), 4u);
    advanceBy(3s);
    std::size_t held = 0;
    for (const auto& [id, bytes] : host.streams) held += bytes.size();
    EXPECT_EQ(held, 64u * 1024);
    // Room for one lets the peer's next stream go on too if the first does not take it.
    const auto filled = host.streams.begin()->first;
    host.connection->grantStream(filled, 40'000);
    advanceBy(1s);
    EXPECT_EQ(host.streams[filled].size(), 64u * 1024 + 40'000);
    host.connection->grantStream(filled == opened[1] ? opened[2] : opened[1], 40'000);
    viewer.connection->finishStream(filled);
    advanceBy(1s);
    held = 0;
    for (const auto& [id, bytes] : host.streams) held += bytes.size();
    EXPECT_EQ(held, 64u * 1024 + 80'000);
}

TEST_F(QuicConnectionTest, refusesAWrongCertificateAndAWrongProtocolAtBothEnds) {
    fingerprint = std::string(64, '0');
    begin();
    ASSERT_TRUE(advanceUntil([&] { return viewer.end && host.end; }, 3s));
    EXPECT_FALSE(viewer.end->clean || host.end->clean || viewer.ready || host.ready);
    EXPECT_THAT(viewer.end->error.text, ::testing::HasSubstr("alert 42"));
    EXPECT_THAT(host.end->error.text, ::testing::HasSubstr("alert 42"));
}

TEST_F(QuicConnectionTest, refusesAViewerOfAnotherProtocolOrOfNone) {
    for (const char* protocol : {"h3", "", "velmora/2"}) {
        viewer = {};
        host = {};
        begin({}, protocol);
        ASSERT_TRUE(advanceUntil([&] { return viewer.end && host.end; }, 3s)) << protocol;
        EXPECT_FALSE(host.ready);
        EXPECT_THAT(viewer.end->error.text, ::testing::HasSubstr("alert 120"));
    }
}

TEST_F(QuicConnectionTest, aTokenThatIsNoneOfOurRetryTokensCountsAsNone) {
    Bytes forged(100, 7);
    forged[0] = NGTCP2_CRYPTO_TOKEN_MAGIC_RETRY;
    for (const Bytes& token : {Bytes{0}, Bytes(64, 3), forged}) {
        for (const std::size_t crowd : {std::size_t{0}, QuicAdmission::Parameters{}.retryAbove}) {
            viewer = {};
            host = {};
            accepted = 0;
            halfOpen = crowd;
            viewerParameters.firstToken = token;
            begin();
            ASSERT_TRUE(advanceUntil([&] { return viewer.ready && host.ready; }, 3s)) << int{token[0]};
            EXPECT_EQ(accepted, 1);
        }
    }
}

TEST_F(QuicConnectionTest, codeZeroIsACleanEndAndAnyOtherAFailure) {
    for (const std::uint64_t code : {0, 7}) {
        viewer = {};
        host = {};
        beginReady();
        viewer.connection->close(code);
        ASSERT_TRUE(advanceUntil([&] { return host.end.has_value(); }, 1s));
        EXPECT_EQ(host.end->clean, code == 0);
        EXPECT_EQ(viewer.end->clean, code == 0);
        ASSERT_TRUE(advanceUntil([&] { return !viewer.connection && !host.connection; }, 2s)) << "lingers";
    }
}

TEST_F(QuicConnectionTest, repeatsItsCloseToAPeerThatMissedIt) {
    beginReady();
    host.connection->queueDatagrams(datagramsOf(5, 100), 1, now);
    int lost = 0;
    drops = [&](const End& from, ByteView) { return &from == &viewer && viewer.end && lost++ == 0; };
    viewer.connection->close(0);
    ASSERT_TRUE(advanceUntil([&] { return host.end.has_value(); }, 1s));
    EXPECT_TRUE(host.end->clean);
    EXPECT_GE(lost, 2);
}

TEST_F(QuicConnectionTest, silenceEndsItAfterTheIdleTime) {
    beginReady();
    drops = [](const End&, ByteView) { return true; };
    const auto since = now;
    ASSERT_TRUE(advanceUntil([&] { return viewer.end && host.end; }, 60s));
    EXPECT_FALSE(host.end->clean);
    EXPECT_EQ(host.end->error.code, ETIMEDOUT);
    EXPECT_GE(now - since, 15s);
    EXPECT_LE(now - since, 26s);
}

TEST_F(QuicConnectionTest, aQuietConnectionIsKeptAlive) {
    beginReady();
    advanceBy(120s);
    EXPECT_FALSE(viewer.end || host.end);
}

TEST_F(QuicConnectionTest, surrendersToNoPacketFromElsewhereAndFollowsAMovedPeer) {
    beginReady();
    unsigned random = 7;
    for (int i = 0; i < 2000; ++i) {
        Bytes junk(20 + i % 1300);
        for (auto& byte : junk)
            byte = static_cast<std::uint8_t>((random = random * 1664525 + 1013904223) >> 24);
        host.connection->receive(junk, *SocketAddress::parse("198.51.100.9", 999), now);
        viewer.connection->receive(junk, host.address, now);
    }
    advanceBy(100ms);
    EXPECT_FALSE(viewer.end || host.end);

    viewer.address = viewer.address.withPort(50001);
    const auto stream = viewer.connection->openStream().value();
    viewer.connection->sendOnStream(stream, bytesOf("moved"));
    ASSERT_TRUE(advanceUntil([&] { return host.connection->remote() == viewer.address; }, 3s));
    EXPECT_EQ(host.streams[stream], bytesOf("moved"));
    host.connection->queueDatagrams(datagramsOf(10, 1000), 1, now);
    EXPECT_TRUE(advanceUntil([&] { return viewer.datagrams.size() == 10; }, 2s));
}

TEST_F(QuicConnectionTest, aCrowdOfHalfOpenConnectionsMakesAnAddressProveItself) {
    halfOpen = QuicAdmission::Parameters{}.retryAbove;
    std::uint64_t largestAnswer = 0;
    drops = [&](const End& from, ByteView packet) {
        if (&from == &host && accepted == 0)
            largestAnswer = std::max<std::uint64_t>(largestAnswer, packet.size());
        return false;
    };
    begin();
    ASSERT_TRUE(advanceUntil([&] { return viewer.ready && host.ready; }, 3s));
    EXPECT_EQ(accepted, 1);
    EXPECT_GT(largestAnswer, 0u) << "no Retry was asked for";
    EXPECT_LT(largestAnswer, 300u);
}

TEST_F(QuicConnectionTest, anUnprovenAddressGetsAtMostThreeTimesWhatItSent) {
    drops = [&](const End& from, ByteView) { return &from == &viewer && bytesFromViewer > 1300; };
    begin();
    advanceBy(9s);
    EXPECT_GT(bytesFromHost, 1200u);
    // The viewer got answers but is silenced: the host, unanswered, may not pour.
    EXPECT_LE(bytesFromHost, 3 * 1300u);
}

}  // namespace
}  // namespace velmora
