#include "Viewer/Session/SignalingRendezvousPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeUdpPort.h"
#include "Testing/FakeWebSocket.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// Records what the path asks for, and ends as the real one does: by destroying the path.
class FakeLadder final : public RendezvousPath::Ladder {
public:
    explicit FakeLadder(Queue& main) : main_(main), start_(main.now()) {}

    const ViewerOptions& options() const override { return options_; }
    const std::string& deviceID() const override { return deviceID_; }
    void attempt(Attempt attempt) override {
        attempts.push_back(attempt);
        times.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(main_.now() - start_));
    }
    std::string attemptedLabels() const override {
        std::string labels;
        for (const auto& attempt : attempts) labels += (labels.empty() ? "" : ", ") + attempt.label;
        return labels;
    }
    bool hasWinner() const override { return winner; }
    bool hasConnection() const override { return winner; }
    void setSessionToken(std::optional<std::string> given) override { token = std::move(given); }
    void reportConnecting() override { ++reports; }
    void end(const ConnectionError& error) override {
        ends.push_back(error);
        path->hangUp();
        path.reset();
    }
    std::vector<std::string> labels() const {
        std::vector<std::string> labels;
        for (const auto& attempt : attempts) labels.push_back(attempt.label);
        return labels;
    }

    std::unique_ptr<RendezvousPath> path;
    bool winner = false;
    std::optional<std::string> token;
    int reports = 0;
    std::vector<Attempt> attempts;
    std::vector<std::chrono::milliseconds> times;  // of the attempts
    std::vector<ConnectionError> ends;

private:
    Queue& main_;
    const HostClock::time_point start_;
    const ViewerOptions options_{.target = RemoteDevices::HostId{"123456789"},
                                 .name = "Studio",
                                 .password = "042137",
                                 .clientName = "Couch",
                                 .agent = true};
    const std::string deviceID_ = "D1";
};

class SignalingRendezvousPathTest : public testing::Test {
protected:
    SignalingRendezvousPathTest() { begin(); }
    void begin() {
        ladder.path = std::make_unique<SignalingRendezvousPath>(
            ladder, *SignalingUrl::parse("wss://rendezvous.example"),
            SignalingRendezvousPath::Services{
                .sockets = sockets, .probes = probes, .preferences = preferences, .main = main},
            SignalingRendezvousPath::Parameters{.drawLocalPort = [this] { return ++lastLocalPort; }});
        ladder.path->start("123456789");
    }
    void beginAnew() {
        ladder.path.reset();
        ladder.winner = false;
        ladder.attempts.clear();
        ladder.ends.clear();
        begin();
    }
    void join() {
        server().open();
        server().received.clear();
    }
    void stunAnswers() {
        network.answers["stun.example:3478"] = {.delay = 30ms, .reply = [](const UdpPort::Datagram& request) {
                                                    return stun::encodeBindingResponse(
                                                        *stun::decodeBindingRequest(request.payload),
                                                        {{203, 0, 113, 5}, 50001});
                                                }};
    }
    FakeWebSocketServerEnd& server() { return sockets.newest(); }
    void tell(const std::string& text) { server().sendText(text); }
    /// `more` goes into the host's candidates, `beside` next to them.
    void accept(const std::string& more, const std::string& beside = "") {
        tell(R"({"type":"accepted","sessionToken":"t","hostCandidates":{"quic":true,"fingerprint":"AB01")" +
             more + "}" + beside + "}");
    }
    static std::vector<std::chrono::milliseconds> at(std::initializer_list<int> milliseconds) {
        return {milliseconds.begin(), milliseconds.end()};
    }
    const ConnectionError& theEnd() const {
        static const ConnectionError none{};
        EXPECT_EQ(ladder.ends.size(), 1u);
        return ladder.ends.empty() ? none : ladder.ends.front();
    }

    static constexpr const char* relay = R"(,"relay":{"host":"relay.example","port":3479,"token":"tok"})";

    VirtualTime time;
    VirtualQueue main{time};
    FakeWebSocketFactory sockets;
    FakeUdpPort network;
    FakePreferenceStore preferences;
    UdpProbes probes{network, "stun.example", main};
    std::uint16_t lastLocalPort = 50000;
    FakeLadder ladder{main};
    DiaryReader diary;
};

TEST_F(SignalingRendezvousPathTest, joinsWithIdAndPassword) {
    server().open();
    EXPECT_EQ(rendezvous::decodeFromClient(server().received.at(0)),
              rendezvous::FromClient(rendezvous::Join{.id = "123456789",
                                                      .password = "042137",
                                                      .clientName = "Couch",
                                                      .deviceId = "D1",
                                                      .agent = true}));
    tell(R"({"type":"join_pending","hostname":"The Studio"})");
    tell(R"({"type":"join_pending"})");
    EXPECT_EQ(ladder.reports, 2);
    EXPECT_THAT(diary.viewerLines(),
                ElementsAre("Signaling connected; sending Host ID and password",
                            "Password accepted by Velmora Cloud; waiting for “The Studio”",
                            "Password accepted by Velmora Cloud; waiting for “Studio”"));
}

TEST_F(SignalingRendezvousPathTest, triesLocalAddressesAtOnceAndSideBySide) {
    join();
    accept(R"(,"addresses":["192.0.2.10:47272","10.0.0.5:6000"])");
    ASSERT_EQ(ladder.attempts.size(), 2u);
    EXPECT_EQ(ladder.attempts[0].label, "LAN 192.0.2.10:47272");
    EXPECT_EQ(ladder.attempts[0].endpoint, Endpoint::hostPort("192.0.2.10", 47272));
    EXPECT_EQ(ladder.attempts[0].fingerprint, "AB01");
    EXPECT_EQ(ladder.attempts[0].localPort, std::nullopt);
    EXPECT_EQ(ladder.attempts[1].endpoint, Endpoint::hostPort("10.0.0.5", 6000));
    EXPECT_EQ(ladder.token, "t");
    EXPECT_EQ(preferences.string("hostFingerprint:123456789"), "AB01");
    EXPECT_THAT(diary.viewerLines(),
                Contains("“Studio” accepted; its addresses: 192.0.2.10:47272, 10.0.0.5:6000"));
    time.advanceBy(9s);
    EXPECT_THAT(network.sent, IsEmpty()) << "no public address, no relay: nothing to probe";
}

TEST_F(SignalingRendezvousPathTest, punchesThroughFromThePortThatItThenConnectsFrom) {
    stunAnswers();
    join();
    accept(R"(,"mapped":"198.51.100.7:40001")");
    EXPECT_EQ(network.sent.at(0).datagram.localPort, 50001);
    time.advanceBy(30ms);
    EXPECT_THAT(server().received,
                ElementsAre(R"({"candidates":{"mapped":"203.0.113.5:50001"},"type":"candidates"})"));
    time.advanceBy(249ms);
    EXPECT_THAT(ladder.attempts, IsEmpty());
    time.advanceBy(1ms);
    ASSERT_THAT(ladder.labels(), ElementsAre("Direct 198.51.100.7:40001"));
    EXPECT_EQ(ladder.attempts[0].endpoint, Endpoint::hostPort("198.51.100.7", 40001));
    EXPECT_EQ(ladder.attempts[0].localPort, 50001);
    EXPECT_THAT(diary.viewerLines(),
                Contains("Our public address: 203.0.113.5:50001; host's: 198.51.100.7:40001"));
    EXPECT_THAT(diary.viewerLines(), Contains("“Studio” accepted; its addresses: none"));

    ladder.winner = true;
    server().received.clear();
    ladder.path->reopenDirect();
    time.advanceBy(30ms);
    EXPECT_EQ(network.sent.back().datagram.localPort, 50001);
    EXPECT_THAT(server().received,
                ElementsAre(R"({"candidates":{"mapped":"203.0.113.5:50001"},"type":"candidates"})"));
}

TEST_F(SignalingRendezvousPathTest, triesDirectlyEvenIfStunIsSilent) {
    join();
    accept(R"(,"mapped":"198.51.100.7:40001")");
    time.advanceBy(9s);
    EXPECT_THAT(ladder.labels(), ElementsAre("Direct 198.51.100.7:40001"));
    EXPECT_EQ(ladder.times, at({1450}));
    EXPECT_THAT(server().received, IsEmpty());
    EXPECT_THAT(diary.viewerLines(), Contains("Our public address: unknown (STUN didn't answer); host's: "
                                              "198.51.100.7:40001"));
}

TEST_F(SignalingRendezvousPathTest, comesByTheRelayIfNothingElseAnswers) {
    network.answers["relay.example:3479"] = {.delay = 700ms,
                                             .reply = [](const auto&) { return bytesOf("VLACK"); }};
    join();
    accept(R"(,"addresses":["192.0.2.10:47272"])", relay);
    time.advanceBy(1199ms);
    EXPECT_THAT(network.sent, IsEmpty());
    time.advanceBy(8s);
    EXPECT_THAT(ladder.labels(), ElementsAre("LAN 192.0.2.10:47272", "Relay"));
    EXPECT_EQ(ladder.times, at({0, 1600}));
    EXPECT_EQ(ladder.attempts[1].endpoint, Endpoint::hostPort("relay.example", 3479));
    EXPECT_EQ(ladder.attempts[1].fingerprint, "AB01") << "a relay is not trusted";
    EXPECT_EQ(ladder.attempts[1].localPort, 50001);
    ASSERT_EQ(network.sent.size(), 1u);
    EXPECT_EQ(network.sent[0].datagram.localPort, 50001);
    EXPECT_EQ(network.sent[0].datagram.payload, bytesOf("VLREGtok"));
    EXPECT_EQ(network.sent[0].datagram.waitForReply, 1s);
    EXPECT_THAT(
        diary.viewerLines(),
        ElementsAre("Signaling connected; sending Host ID and password",
                    "“Studio” accepted; its addresses: 192.0.2.10:47272; relay available",
                    "No direct answer yet; registering at the relay relay.example:3479 from local port 50001",
                    "Relay confirmed the registration"));

    ladder.winner = true;
    ladder.path->reopenRelay();
    ASSERT_EQ(network.sent.size(), 2u);
    EXPECT_EQ(network.sent[1].datagram.localPort, 50001);
    EXPECT_EQ(network.sent[1].datagram.payload, bytesOf("VLREGtok"));
}

TEST_F(SignalingRendezvousPathTest, goesToTheRelayAtOnceWithoutLocalAddresses) {
    network.answers["relay.example:3479"] = {.reply = [](const auto&) { return bytesOf("VLACK\n"); }};
    join();
    accept("", relay);
    EXPECT_EQ(network.sent.size(), 1u);
    time.advanceBy(9s);
    EXPECT_EQ(ladder.times, at({400}));
    EXPECT_THAT(diary.viewerLines(), Contains("Relay answered unexpectedly"));
}

TEST_F(SignalingRendezvousPathTest, anOfferOfNoUseIsNoRelay) {
    join();
    accept("", R"(,"relay":{"host":"relay.example","port":3479})");
    EXPECT_THAT(diary.viewerLines(), Contains("“Studio” accepted; its addresses: none; relay available"));
    time.advanceBy(9s);
    EXPECT_THAT(ladder.attempts, IsEmpty());
    EXPECT_THAT(network.sent, IsEmpty());
}

TEST_F(SignalingRendezvousPathTest, aRelayOnAnImpossiblePortIsNamedAndLeftOut) {
    join();
    accept("", R"(,"relay":{"host":"relay.example","port":70000,"token":"tok"})");
    time.advanceBy(9s);
    EXPECT_THAT(ladder.attempts, IsEmpty());
    EXPECT_THAT(diary.viewerLines(),
                Contains("⚠︎ Velmora Cloud offers a relay on an impossible port, 70000"));
}

TEST_F(SignalingRendezvousPathTest, aWinnerStopsWhateverHasNotBegun) {
    stunAnswers();
    for (const auto moment : {10ms, 100ms, 1300ms}) {  // before STUN answers, before each attempt
        beginAnew();
        join();
        accept(R"(,"addresses":["192.0.2.10:47272"],"mapped":"198.51.100.7:40001")", relay);
        time.advanceBy(moment);
        const auto begun = ladder.attempts.size();
        ladder.winner = true;
        time.advanceBy(1h);
        EXPECT_EQ(ladder.attempts.size(), begun) << moment.count();
        EXPECT_THAT(ladder.ends, IsEmpty());
    }
}

TEST_F(SignalingRendezvousPathTest, givesUpTenSecondsAfterTheRaceBegan) {
    join();
    time.advanceBy(3s);
    accept(R"(,"addresses":["192.0.2.10:47272"])", relay);
    time.advanceBy(9999ms);
    EXPECT_THAT(ladder.ends, IsEmpty());
    time.advanceBy(1ms);
    EXPECT_EQ(theEnd(), ConnectionError::unreachable("Studio"));
    EXPECT_EQ(diary.viewerLines().back(),
              "⚠︎ No QUIC connection after 10 s (tried: LAN 192.0.2.10:47272, Relay)");
}

TEST_F(SignalingRendezvousPathTest, aHostWithoutQuicIsTooOld) {
    for (const char* candidates :
         {"", R"(,"hostCandidates":{"quic":true})", R"(,"hostCandidates":{"quic":true,"fingerprint":""})",
          R"(,"hostCandidates":{"quic":false,"fingerprint":"AB01","addresses":["192.0.2.10:47272"]})",
          R"(,"hostCandidates":{"fingerprint":"AB01","addresses":["192.0.2.10:47272"]})"}) {
        beginAnew();
        join();
        tell(R"({"type":"accepted","sessionToken":"t")" + std::string(candidates) + "}");
        EXPECT_EQ(theEnd(), ConnectionError::outdated("Studio")) << candidates;
        EXPECT_THAT(ladder.attempts, IsEmpty());
        EXPECT_EQ(preferences.get("hostFingerprint:123456789"), std::nullopt);
    }
}

TEST_F(SignalingRendezvousPathTest, refusalsHaveTheirWords) {
    const auto expect = [this](const std::string& message, const ConnectionError& error) {
        beginAnew();
        join();
        tell(message);
        EXPECT_EQ(theEnd(), error) << message;
        EXPECT_THAT(server().received, ElementsAre(R"({"type":"hangup"})"));
    };
    expect(R"({"type":"rejected","message":"That Mac accepts connections only from its own network."})",
           ConnectionError::onlyLocalNetwork("Studio"));
    expect(R"({"type":"rejected"})", ConnectionError::other("Studio", "Studio declined the connection."));
    expect(R"({"type":"rejected","message":"Not now."})", ConnectionError::other("Studio", "Not now."));
    expect(R"({"type":"rejected","code":"busy"})", ConnectionError::busy("Studio"));
    expect(R"({"type":"error","code":"wrong_password","message":"x"})",
           ConnectionError::wrongPassword("Studio"));
    EXPECT_EQ(diary.viewerLines().back(), "⚠︎ Velmora Cloud: wrong_password x");
    expect(R"({"type":"error"})", ConnectionError::other("Studio", "Velmora Cloud refused the connection."));
    EXPECT_EQ(diary.viewerLines().back(), "⚠︎ Velmora Cloud: ? ");
    expect(R"({"type":"admin_kick"})", ConnectionError::endedByService("Studio"));
    expect(R"({"type":"peer_left"})", ConnectionError::endedByHost("Studio"));
}

TEST_F(SignalingRendezvousPathTest, aServiceThatCannotBeReachedEndsIt) {
    server().fail("no route");
    EXPECT_EQ(theEnd(), ConnectionError::noInternet());
    EXPECT_THAT(diary.viewerLines(), ElementsAre("⚠︎ Can't reach Velmora Cloud: no route"));
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), 1u);
}

TEST_F(SignalingRendezvousPathTest, withAConnectionOnlyTheAdministratorEndsIt) {
    join();
    accept(R"(,"addresses":["192.0.2.10:47272"])");
    ladder.winner = true;
    tell(R"({"type":"peer_left"})");
    tell(R"({"type":"error","code":"offline"})");
    EXPECT_THAT(ladder.ends, IsEmpty());
    tell(R"({"type":"admin_kick"})");
    EXPECT_EQ(theEnd(), ConnectionError::endedByService("Studio"));
}

TEST_F(SignalingRendezvousPathTest, withAConnectionTheLinkMayGoAndTheHostIsNotCalledAgain) {
    join();
    accept(R"(,"addresses":["192.0.2.10:47272"])");
    ladder.winner = true;
    server().fail("reset");
    time.advanceBy(1h);
    EXPECT_THAT(ladder.ends, IsEmpty());
    EXPECT_EQ(sockets.ends.size(), 1u);
}

TEST_F(SignalingRendezvousPathTest, aServiceCannotMakeItFloodTheNetwork) {
    std::string addresses = R"("10.0.0.1:1")";
    for (int i = 0; i < 1000; ++i) addresses += R"(,"10.0.0.2:2")";
    join();
    accept(R"(,"addresses":[)" + addresses + "]");
    accept(R"(,"addresses":[)" + addresses + "]");
    EXPECT_EQ(ladder.attempts.size(), 32u);
}

TEST_F(SignalingRendezvousPathTest, hangsUpAndIsSilent) {
    stunAnswers();
    join();
    accept(R"(,"addresses":["192.0.2.10:47272"],"mapped":"198.51.100.7:40001")", relay);
    ladder.path->hangUp();
    EXPECT_THAT(server().received, ElementsAre(R"({"type":"hangup"})"));
    EXPECT_TRUE(server().closedByClient);
    time.advanceBy(1h);
    EXPECT_EQ(ladder.attempts.size(), 1u);
    EXPECT_THAT(ladder.ends, IsEmpty());
    EXPECT_EQ(sockets.ends.size(), 1u);
}

TEST(RandomLocalPortTest, staysInItsRange) {
    for (int i = 0; i < 1000; ++i) {
        const auto port = SignalingRendezvousPath::randomLocalPort();
        EXPECT_GE(port, 50000);
        EXPECT_LE(port, 60000);
    }
}

}  // namespace
}  // namespace velmora
