#include "VelmoraKit/Signaling/SignalingClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Testing/FakeWebSocket.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using rendezvous::PeerLeft;
using State = SignalingClient::State;
using testing::ElementsAre;

class SignalingClientTest : public testing::Test {
protected:
    SignalingClientTest() {
        client->onStateChange = [this](State state, const std::optional<std::string>& reason) {
            constexpr const char* words[] = {"disconnected", "connecting", "connected"};
            states.push_back(words[static_cast<int>(state)] + (reason ? ": " + *reason : ""));
        };
        client->onMessage = [this](const rendezvous::ToClient& message) { messages.push_back(message); };
    }
    void connect() {
        client->connect([this] { ++opened; });
    }
    FakeWebSocketServerEnd& server() { return sockets.newest(); }

    VirtualTime time;
    VirtualQueue main{time};
    FakeWebSocketFactory sockets;
    std::unique_ptr<SignalingClient> client =
        std::make_unique<SignalingClient>(*SignalingUrl::parse("wss://rendezvous.example"), sockets, main);
    std::vector<std::string> states;
    std::vector<rendezvous::ToClient> messages;
    int opened = 0;
};

TEST_F(SignalingClientTest, opensTellsAndEndsAsItsOwnerWants) {
    connect();
    EXPECT_EQ(server().url, "wss://rendezvous.example");
    EXPECT_EQ(server().longestMessage, 65536u);
    server().open();
    EXPECT_EQ(opened, 1);
    client->disconnect();
    EXPECT_TRUE(server().closedByClient);
    client->disconnect();
    EXPECT_THAT(states, ElementsAre("connecting", "connected", "disconnected"));
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), 1u);
}

TEST_F(SignalingClientTest, aSecondConnectOnlyReplacesWhatRunsOnOpening) {
    connect();
    int second = 0;
    client->connect([&] { ++second; });
    EXPECT_EQ(sockets.ends.size(), 1u);
    server().open();
    EXPECT_EQ(opened, 0);
    EXPECT_EQ(second, 1);
    client->connect([&] { second += 10; });
    EXPECT_EQ(second, 1);
    server().close(1001);
    time.advanceBy(1s);
    server().open();
    EXPECT_EQ(second, 11);
}

TEST_F(SignalingClientTest, waitsLongerAfterEachFailureAndShortAfterASuccess) {
    connect();
    for (const auto delay : {1s, 2s, 4s, 8s, 16s, 30s, 30s}) {
        const auto attempts = sockets.ends.size();
        server().fail("no route");
        time.advanceBy(delay - 1ms);
        EXPECT_EQ(sockets.ends.size(), attempts) << delay.count();
        EXPECT_EQ(client->state(), State::disconnected);
        time.advanceBy(1ms);
        EXPECT_EQ(sockets.ends.size(), attempts + 1) << delay.count();
        EXPECT_EQ(client->state(), State::connecting);
    }
    server().open();
    server().close(1006);
    time.advanceBy(1s);
    EXPECT_TRUE(server().isWaiting());
    EXPECT_EQ(opened, 1);
    server().open();
    EXPECT_EQ(opened, 2) << "the owner registers again by itself";
}

TEST_F(SignalingClientTest, saysWhyItWasLost) {
    connect();
    server().fail("no route");
    time.advanceBy(1s);
    server().close(1008);
    time.advanceBy(2s);
    server().open();
    server().fail("reset by peer");
    EXPECT_THAT(states, ElementsAre("connecting", "disconnected: no route", "connecting",
                                    "disconnected: closed by the server (1008)", "connecting", "connected",
                                    "disconnected: reset by peer"));
}

TEST_F(SignalingClientTest, disconnectingWhileItWaitsMakesNoSocket) {
    connect();
    server().fail("no route");
    client->disconnect();
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), 1u);
    EXPECT_THAT(states, ElementsAre("connecting", "disconnected: no route"));
}

TEST_F(SignalingClientTest, connectingWhileItWaitsDoesNotWait) {
    connect();
    server().fail("no route");
    connect();
    EXPECT_EQ(sockets.ends.size(), 2u);
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), 2u) << "the pending retry has nothing left to do";
}

TEST_F(SignalingClientTest, aSocketThatWasReplacedHasNoMoreSay) {
    connect();
    const auto first = sockets.ends[0];
    first->open();
    client->disconnect();
    connect();
    states.clear();
    first->sendText(R"({"type":"peer_left"})");
    first->close(1000);
    EXPECT_TRUE(first->gone);
    EXPECT_THAT(states, ElementsAre());
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(client->state(), State::connecting);
}

TEST_F(SignalingClientTest, sendsOnlyWhenConnected) {
    const rendezvous::FromClient hangup = rendezvous::Hangup{};
    client->send(hangup);
    connect();
    client->send(hangup);
    server().open();
    EXPECT_THAT(server().received, ElementsAre());
    client->send(hangup);
    EXPECT_THAT(server().received, ElementsAre(R"({"type":"hangup"})"));
    server().fail("gone");
    client->send(hangup);
    time.advanceBy(1s);
    server().open();
    EXPECT_THAT(server().received, ElementsAre());
}

TEST_F(SignalingClientTest, handsOnMessagesAndDropsWhatIsNone) {
    connect();
    server().open();
    for (const char* text : {"", "hello", "[]", R"({"type":"unheard_of"})", R"({"type":"peer_left"})"}) {
        server().sendText(text);
    }
    EXPECT_THAT(messages, ElementsAre(rendezvous::ToClient(PeerLeft{})));
    EXPECT_EQ(client->state(), State::connected);
    server().sendText(std::string(65537, ' '));
    EXPECT_EQ(states.back(), "disconnected: message too big");
}

TEST_F(SignalingClientTest, anyCallbackMayDestroyIt) {
    const auto destroy = [this] { client.reset(); };
    const auto start = [&] {
        client = std::make_unique<SignalingClient>(*SignalingUrl::parse("ws://a"), sockets, main);
    };
    start();
    client->onStateChange = [&](State, const auto&) { destroy(); };
    client->connect([this] { ++opened; });
    EXPECT_TRUE(server().closedByClient);

    start();
    client->connect([this] { ++opened; });
    client->onStateChange = [&](State, const auto&) { destroy(); };
    server().open();
    EXPECT_EQ(opened, 0);

    start();
    client->connect(destroy);
    server().open();
    EXPECT_FALSE(client);

    start();
    client->connect(nullptr);
    server().open();
    client->onMessage = [&](const auto&) { destroy(); };
    server().sendText(R"({"type":"peer_left"})");
    EXPECT_FALSE(client);

    start();
    client->connect(nullptr);
    client->onStateChange = [&](State, const auto&) { destroy(); };
    server().close(1000);
    const auto attempts = sockets.ends.size();
    time.advanceBy(1h);
    EXPECT_EQ(sockets.ends.size(), attempts);
}

TEST(SignalingUrlTest, isTakenAsGiven) {
    const auto host = [](std::string_view text) { return SignalingUrl::parse(text)->host(); };
    EXPECT_EQ(SignalingUrl::parse("wss://a.example/x?y#z")->text(), "wss://a.example/x?y#z");
    EXPECT_EQ(host("wss://a.example"), "a.example");
    EXPECT_EQ(host("ws://127.0.0.1:8080/x"), "127.0.0.1");
    EXPECT_EQ(host("ws://[::1]:8080"), "::1");
    EXPECT_EQ(host("ws://me:pass@a.example:80"), "a.example");
    EXPECT_EQ(host("ws:///path"), SignalingUrl::ofThisBuild().host());
    EXPECT_EQ(host("rendezvous"), SignalingUrl::ofThisBuild().host());
    EXPECT_TRUE(SignalingUrl::ofThisBuild().host().ends_with(".invalid"));

    const auto devices = [](std::string_view text) { return SignalingUrl::parse(text)->httpUrl("/devices"); };
    EXPECT_EQ(devices("wss://a.example"), "https://a.example/devices");
    EXPECT_EQ(devices("WS://127.0.0.1:8080/x?y=1#z"), "http://127.0.0.1:8080/devices?y=1");
    EXPECT_EQ(devices("wss://[::1]:8443/"), "https://[::1]:8443/devices");
}

TEST(SignalingUrlTest, refusesWhatIsNoUrl) {
    for (const char* text :
         {"", " ", "wss://a b", "wss://a:port", "wss://a:65536", "wss://[::1", "wss://a]", "wss://[::1]x",
          "wss://a%2", "wss://ä.example", "1ws://a", "://a", "wss://<a>"}) {
        EXPECT_FALSE(SignalingUrl::parse(text)) << text;
    }
}

TEST(SignalingUrlTest, theEnvironmentOverridesTheBuild) {
    unsetenv("VELMORA_SIGNALING");
    EXPECT_EQ(*SignalingClient::defaultURL(), SignalingUrl::ofThisBuild());
    setenv("VELMORA_SIGNALING", "ws://127.0.0.1:9000", 1);
    EXPECT_EQ(SignalingClient::defaultURL()->text(), "ws://127.0.0.1:9000");
    setenv("VELMORA_SIGNALING", "not a url", 1);
    EXPECT_FALSE(SignalingClient::defaultURL());
    unsetenv("VELMORA_SIGNALING");
}

}  // namespace
}  // namespace velmora
