#include "Host/HostSignaling.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakeNetworkAddresses.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/FakeUdpPort.h"
#include "Testing/FakeWebSocket.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using rendezvous::Accept;
using rendezvous::FromClient;
using rendezvous::HostCreate;
using rendezvous::Reject;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = HostSignaling::Status::Kind;

constexpr const char* registration = R"({"type":"session_created","id":"123456789",
    "publicAddress":"198.51.100.7"})";
constexpr const char* joinRequest = R"({"type":"join_request","clientId":"c7","clientName":"Desk",
    "clientAddress":"203.0.113.5"})";

class HostSignalingTest : public testing::Test {
protected:
    HostSignalingTest() {
        preferences.set("host.id", std::string("123456789"));
        EXPECT_TRUE(keychain.save("042137", "com.velmora.host", "password", "label"));
        identity = std::make_unique<HostIdentity>(preferences, keychain, main, main);
        time.settle();
        network.answers["stun.example:3478"] = {.delay = 30ms, .reply = [](const UdpPort::Datagram& request) {
                                                    return stun::encodeBindingResponse(
                                                        *stun::decodeBindingRequest(request.payload),
                                                        {{198, 51, 100, 7}, 40001});
                                                }};
        signaling = std::make_unique<HostSignaling>(
            *SignalingUrl::parse("wss://rendezvous.example"),
            HostSignaling::Services{
                .identity = *identity,
                .server = {.authorize =
                               [this](const std::string& token, const std::string& name) {
                                   authorized.push_back(token + " for " + name);
                               },
                           .allowsPasswordAccess = [this] { return allowsPasswordAccess; },
                           .hasViewer = [this] { return hasViewer; },
                           .fingerprint = [this] { return fingerprint; }},
                .sockets = sockets,
                .probes = probes,
                .addresses = addresses,
                .machine = machine,
                .main = main});
        signaling->onStatus = [this](const HostSignaling::Status& status) {
            constexpr const char* words[] = {"off", "connecting", "online", "offline"};
            statuses.push_back(words[static_cast<int>(status.kind)] +
                               (status.reason.empty() ? "" : ": " + status.reason));
        };
        signaling->onSecurityNotice = [this](const std::string& text) { notices.push_back(text); };
        signaling->onAdminKick = [this] { ++kicks; };
    }
    void goOnline() {
        signaling->start();
        server().open();
        server().sendText(registration);
        server().received.clear();
        statuses.clear();
    }
    FakeWebSocketServerEnd& server() { return sockets.newest(); }
    std::vector<FromClient> received() {
        std::vector<FromClient> messages;
        for (const auto& text : server().received) messages.push_back(*rendezvous::decodeFromClient(text));
        return messages;
    }
    /// What left for that place, as seconds since `start`.
    std::vector<double> sentTo(const std::string& host, std::uint16_t port, const Bytes& payload,
                               HostClock::time_point start) {
        std::vector<double> times;
        for (const auto& [when, datagram] : network.sent) {
            if (datagram.host != host || datagram.port != port || datagram.payload != payload) continue;
            EXPECT_EQ(datagram.localPort, 47272);
            times.push_back(std::chrono::duration<double>(when - start).count());
        }
        return times;
    }

    VirtualTime time;
    VirtualQueue main{time};
    FakePreferenceStore preferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    FakeWebSocketFactory sockets;
    FakeUdpPort network;
    UdpProbes probes{network, "stun.example", main};
    FakeNetworkAddresses addresses;
    FakeMachineInfo machine;
    std::unique_ptr<HostIdentity> identity;
    bool allowsPasswordAccess = true, hasViewer = false;
    std::optional<std::string> fingerprint = "AB01";
    std::unique_ptr<HostSignaling> signaling;
    std::vector<std::string> authorized, statuses, notices;
    int kicks = 0;
    DiaryReader diary;
};

TEST_F(HostSignalingTest, registersAtEachConnectionAndAtEachNewPassword) {
    const FromClient create = HostCreate{
        .hostId = "123456789", .password = "042137", .hostname = machine.localizedName(), .available = true};
    signaling->start();
    server().open();
    EXPECT_THAT(received(), ElementsAre(create));
    server().sendText(registration);
    EXPECT_THAT(statuses, ElementsAre("connecting", "online"));
    EXPECT_THAT(diary.hostLines(), ElementsAre("Online at Velmora Cloud as 123 456 789"));

    identity->setPassword("999999");
    ASSERT_EQ(received().size(), 2u);
    EXPECT_EQ(std::get<HostCreate>(received()[1]).password, "999999");

    server().close(1001);
    time.advanceBy(1s);
    server().open();
    ASSERT_EQ(received().size(), 1u);
    EXPECT_EQ(std::get<HostCreate>(received()[0]).password, "999999");
}

TEST_F(HostSignalingTest, waitsForAPasswordThatTheStoreHoldsBack) {
    signaling.reset();
    secrets.setLocked(true);
    HostIdentity locked(preferences, keychain, main, main);
    time.settle();
    HostSignaling waiting(*SignalingUrl::parse("wss://a"), {.identity = locked,
                                                            .server = {},
                                                            .sockets = sockets,
                                                            .probes = probes,
                                                            .addresses = addresses,
                                                            .machine = machine,
                                                            .main = main});
    waiting.start();
    server().open();
    EXPECT_THAT(server().received, IsEmpty());
    secrets.setLocked(false);
    time.advanceBy(5s);
    ASSERT_EQ(received().size(), 1u);
    EXPECT_EQ(std::get<HostCreate>(received()[0]).password, "042137");
}

TEST_F(HostSignalingTest, itsStatusFollowsTheLink) {
    signaling->start();
    server().fail("no route");
    time.advanceBy(1s);
    server().open();
    server().sendText(R"({"type":"session_created","id":"111111111"})");
    server().sendText(R"({"type":"error","message":"Taken","code":"busy"})");
    server().sendText(R"({"type":"error","message":"Hm","code":"other"})");
    server().sendText(R"({"type":"error"})");
    server().sendText(registration);
    server().sendText(registration);
    server().close(1006);
    EXPECT_THAT(statuses,
                ElementsAre("connecting", "offline: Can't reach Velmora Cloud (no route)", "connecting",
                            "offline: Velmora Cloud assigned a different ID", "offline: Taken", "online",
                            "offline: Can't reach Velmora Cloud (closed by the server (1006))"));
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Signaling connection lost: no route; retrying"));
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Velmora Cloud: Unknown error"));
}

TEST_F(HostSignalingTest, comesOnlineByItselfAfterARefusal) {
    const auto isAskedWithin = [this](std::chrono::seconds pause) {
        server().received.clear();
        time.advanceBy(pause - 1ms);
        EXPECT_THAT(received(), IsEmpty());
        time.advanceBy(1ms);
        return received().size() == 1;
    };
    const auto refuse = [this](const std::string& code) {
        server().sendText(R"({"type":"error","message":"No.","code":")" + code + R"("})");
    };
    goOnline();
    refuse("busy");  // another has taken it
    for (const auto pause : {10s, 20s, 40s, 80s, 160s, 300s, 300s}) {
        EXPECT_TRUE(isAskedWithin(pause)) << pause.count();
        refuse("busy");
    }
    server().sendText(registration);
    EXPECT_THAT(statuses, ElementsAre("offline: No.", "online"));
    refuse("other");
    server().received.clear();
    time.advanceBy(1h);
    EXPECT_THAT(received(), IsEmpty()) << "it is online";

    server().fail("reset");
    time.advanceBy(1s);
    server().open();
    refuse("rate_limited");
    EXPECT_TRUE(isAskedWithin(10s));
    refuse("busy");
    server().fail("reset");
    time.advanceBy(1s);
    server().open();
    server().received.clear();
    time.advanceBy(1h);
    EXPECT_THAT(received(), IsEmpty()) << "the new connection asks for itself, and has no answer yet";

    refuse("busy");
    signaling->stop();
    server().received.clear();
    time.advanceBy(1h);
    EXPECT_THAT(received(), IsEmpty());
}

TEST_F(HostSignalingTest, saysGoodbyeWhenItStops) {
    signaling->stop();
    EXPECT_THAT(statuses, IsEmpty());
    goOnline();
    signaling->stop();
    EXPECT_THAT(server().received,
                ElementsAre(R"({"available":false,"type":"host_availability"})", R"({"type":"hangup"})"));
    EXPECT_TRUE(server().closedByClient);
    EXPECT_THAT(statuses, ElementsAre("off"));
    identity->setPassword("999999");
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), 1u);
}

TEST_F(HostSignalingTest, acceptsAViewerWithItsWaysIn) {
    addresses.addresses = {"192.0.2.10", "10.0.0.5"};
    goOnline();
    server().sendText(joinRequest);
    EXPECT_THAT(server().received, IsEmpty()) << "STUN is asked first";
    time.advanceBy(30ms);
    EXPECT_THAT(
        received(),
        ElementsAre(FromClient(Accept{.clientId = "c7",
                                      .candidates = {.addresses = {"192.0.2.10:47272", "10.0.0.5:47272"},
                                                     .port = 47272,
                                                     .quic = true,
                                                     .fingerprint = "AB01",
                                                     .mapped = "198.51.100.7:40001"}})));
    EXPECT_EQ(network.sent.at(0).datagram.localPort, 47272);
    EXPECT_THAT(diary.hostLines(),
                ElementsAre("Online at Velmora Cloud as 123 456 789",
                            "“Desk” (203.0.113.5) connected with the right ID and password; accepting",
                            "Public address for QUIC: 198.51.100.7:40001"));
}

TEST_F(HostSignalingTest, acceptsWithWhatItHas) {
    fingerprint.reset();
    addresses.addresses.clear();
    network.answers.clear();
    goOnline();
    server().sendText(R"({"type":"join_request","clientId":"c8"})");
    time.advanceBy(1200ms);
    EXPECT_THAT(received(), ElementsAre(FromClient(Accept{.clientId = "c8", .candidates = {}})));
    EXPECT_THAT(diary.hostLines(), Contains("“Mac” (?) connected with the right ID and password; accepting"));
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ STUN didn't answer; no direct internet path offered"));
}

TEST_F(HostSignalingTest, letsOnlyItsOwnNetworkInWhenSoSet) {
    const FromClient rejection = Reject{.message = "That Mac accepts connections only from its own network."};
    allowsPasswordAccess = false;
    goOnline();
    server().sendText(joinRequest);
    EXPECT_THAT(received(), ElementsAre(rejection));
    EXPECT_THAT(diary.hostLines(),
                Contains("Refused “Desk” (203.0.113.5): this Mac is reachable only from its own network"));
    server().sendText(R"({"type":"join_request","clientId":"c9","clientAddress":"198.51.100.7"})");
    time.advanceBy(30ms);
    ASSERT_EQ(received().size(), 2u);
    EXPECT_EQ(std::get<Accept>(received()[1]).clientId, "c9");

    // An address that the service did not tell is nobody's own.
    server().sendText(R"({"type":"session_created","id":"123456789"})");
    server().sendText(R"({"type":"join_request","clientId":"d","clientAddress":"198.51.100.7"})");
    server().sendText(R"({"type":"join_request","clientId":"e"})");
    EXPECT_EQ(received().size(), 4u);
    EXPECT_EQ(received().back(), rejection);
}

TEST_F(HostSignalingTest, handsTheTokenToTheServerUnderTheViewersName) {
    goOnline();
    server().sendText(joinRequest);
    server().sendText(R"({"type":"accepted","sessionToken":"t1","clientId":"c7"})");
    server().sendText(R"({"type":"accepted","sessionToken":"t2","clientId":"c7"})");
    server().sendText(R"({"type":"accepted","sessionToken":"t3"})");
    server().sendText(R"({"type":"accepted","clientId":"c7"})");
    EXPECT_THAT(authorized, ElementsAre("t1 for Desk", "t2 for Mac", "t3 for Mac"));
    EXPECT_THAT(diary.hostLines(),
                Contains("Session token for “Desk” ready (no relay); waiting for its connection"));
    server().sendText(joinRequest);
    server().sendText(R"({"type":"peer_left"})");
    server().sendText(R"({"type":"accepted","sessionToken":"t4","clientId":"c7"})");
    EXPECT_EQ(authorized.back(), "t4 for Mac");
}

TEST_F(HostSignalingTest, punchesSixTimesTowardsTheViewer) {
    goOnline();
    const auto start = time.now();
    server().sendText(R"({"type":"candidates","candidates":{"mapped":"203.0.113.5:50123"}})");
    server().sendText(R"({"type":"candidates","candidates":{"mapped":"2001:db8::1:50124"}})");
    time.advanceBy(10s);
    using testing::DoubleNear;
    const auto rhythm = ElementsAre(DoubleNear(0, 1e-6), DoubleNear(0.1, 1e-6), DoubleNear(0.2, 1e-6),
                                    DoubleNear(0.3, 1e-6), DoubleNear(0.4, 1e-6), DoubleNear(0.5, 1e-6));
    EXPECT_THAT(sentTo("203.0.113.5", 50123, bytesOf("VLPUNCH"), start), rhythm);
    EXPECT_THAT(sentTo("2001:db8::1", 50124, bytesOf("VLPUNCH"), start), rhythm);
    EXPECT_THAT(diary.hostLines(), Contains("Punching towards the viewer at 203.0.113.5:50123"));

    const auto sent = network.sent.size();
    for (const char* bad : {"1.2.3.4", "1.2.3.4:65536", "1.2.3.4:", "1.2.3.4:x", "1.2.3.4:1x", ""}) {
        server().sendText(std::string(R"({"type":"candidates","candidates":{"mapped":")") + bad + "\"}}");
    }
    time.advanceBy(1s);
    EXPECT_EQ(network.sent.size(), sent);
}

TEST_F(HostSignalingTest, staysRegisteredAtTheRelayUntilAViewerComes) {
    network.answers["relay.example:3479"] = {.reply = [](const auto&) { return bytesOf("VLACK"); }};
    goOnline();
    const auto start = time.now();
    server().sendText(R"({"type":"accepted","sessionToken":"t1","clientId":"c7",
        "relay":{"host":"relay.example","port":3479,"token":"tok"}})");
    time.advanceBy(7s);
    EXPECT_EQ(sentTo("relay.example", 3479, bytesOf("VLREGtok"), start).size(), 3u);  // 0, 3, 6 s
    EXPECT_THAT(
        diary.hostLines(),
        ElementsAre(
            "Online at Velmora Cloud as 123 456 789",
            "Registering at the relay relay.example:3479 from UDP 47272",
            "Session token for “Mac” ready; registered at the relay relay.example:3479; waiting for its "
            "connection",
            "Relay confirmed this Mac's registration"));
    hasViewer = true;
    time.advanceBy(1h);
    EXPECT_EQ(network.sent.size(), 3u);
}

TEST_F(HostSignalingTest, aRelayRegistrationEndsWithItsTokenOrItsViewer) {
    network.answers["r:1"] = {.reply = [](const auto&) { return bytesOf("VLACK?"); }};
    goOnline();
    const auto accept = [this](const std::string& relay) {
        server().sendText(R"({"type":"accepted","sessionToken":"t","relay":)" + relay + "}");
    };
    auto start = time.now();
    accept(R"({"host":"r","port":1,"token":"a"})");
    time.advanceBy(1h);
    // At 0, 3 ... 600 s; at 603 s its time is over.
    EXPECT_EQ(sentTo("r", 1, bytesOf("VLREGa"), start).size(), 201u);
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Relay answered unexpectedly"));

    start = time.now();
    accept(R"({"host":"r","port":1,"token":"b"})");
    accept(R"({"host":"r","port":1,"token":"c"})");
    time.advanceBy(4s);
    EXPECT_EQ(sentTo("r", 1, bytesOf("VLREGb"), start).size(), 1u) << "the newest one takes over";
    EXPECT_EQ(sentTo("r", 1, bytesOf("VLREGc"), start).size(), 2u);
    server().sendText(R"({"type":"peer_left"})");
    const auto sent = network.sent.size();
    time.advanceBy(1h);
    EXPECT_EQ(network.sent.size(), sent);

    accept(R"({"host":"r","port":1})");
    accept(R"({"host":"r","port":65536,"token":"d"})");
    time.advanceBy(1h);
    EXPECT_EQ(network.sent.size(), sent);
    EXPECT_THAT(diary.hostLines(),
                Contains("⚠︎ Velmora Cloud offers a relay on an impossible port, 65536"));
}

TEST_F(HostSignalingTest, passesOnWhatTheUserMustKnow) {
    goOnline();
    server().sendText(R"({"type":"security_notice","message":"Careful."})");
    server().sendText(R"({"type":"security_notice"})");
    server().sendText(R"({"type":"admin_kick"})");
    EXPECT_THAT(notices, ElementsAre("Careful.", "Suspicious activity for this Mac's ID."));
    EXPECT_EQ(kicks, 1);
    EXPECT_THAT(diary.hostLines(),
                Contains("⚠︎ Velmora Cloud: Viewer disconnected by the administrator"));
    EXPECT_THAT(diary.hostLines(), Contains("⚠︎ Careful."));
}

TEST_F(HostSignalingTest, nothingHappensOnceItIsGone) {
    goOnline();
    server().sendText(joinRequest);
    server().sendText(R"({"type":"candidates","candidates":{"mapped":"203.0.113.5:50123"}})");
    signaling.reset();
    const auto sent = network.sent.size();
    time.advanceBy(1h);
    EXPECT_EQ(network.sent.size(), sent);
    EXPECT_THAT(server().received, IsEmpty());
}

}  // namespace
}  // namespace velmora
