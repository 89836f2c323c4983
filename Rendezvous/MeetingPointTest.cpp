#include "Rendezvous/MeetingPoint.h"

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Rendezvous/FakeClientPort.h"
#include "Rendezvous/FakeNodeBus.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using namespace rendezvous;

using Socket = std::shared_ptr<FakeClientPort>;

/// A node of the service, with the sockets that are open at it.
struct Node {
    Node(VirtualQueue& queue, FakeNodeBus& bus, std::string name, const SeenHosts::Time& wall)
        : link(bus, std::move(name)), queue(queue), wall(wall) {
        restart();
    }
    void restart() {
        point.reset();
        point = std::make_unique<MeetingPoint>(
            MeetingPoint::Services{.queue = queue,
                                   .link = link,
                                   .seen = seen,
                                   .metrics = metrics,
                                   .clock = [this] { return wall; },
                                   .relay =
                                       [](HostNumber) {
                                           return Relay{"relay.example", 3479, "pair"};
                                       }},
            MeetingPoint::Parameters{});
    }
    FakeNodeBus::Link link;
    VirtualQueue& queue;
    const SeenHosts::Time& wall;
    SeenHosts seen;
    Metrics metrics;
    std::unique_ptr<MeetingPoint> point;
};

class MeetingPointTest : public testing::Test {
protected:
    Socket open(Node& node, std::string_view from) {
        auto socket = std::make_shared<FakeClientPort>(++sockets, from);
        node.point->opened(socket);
        return socket;
    }
    void say(Node& node, const Socket& socket, const FromClient& message) {
        node.point->received(socket->id(), encode(message));
        time.settle();
    }
    /// A host that is registered.
    Socket host(Node& node, const std::string& password = "042137", std::string_view from = "198.51.100.7") {
        const Socket socket = open(node, from);
        say(node, socket, HostCreate{.hostId = "123456789", .password = password, .hostname = "Studio"});
        return socket;
    }
    Socket registeredHost(Node& node, const std::string& password = "042137",
                          std::string_view from = "198.51.100.7") {
        const Socket socket = host(node, password, from);
        EXPECT_EQ(socket->take<SessionCreated>(),
                  (SessionCreated{.id = "123456789", .publicAddress = std::string(from)}));
        return socket;
    }
    Socket join(Node& node, const std::string& password = "042137", const std::string& id = "123456789",
                std::string_view from = "203.0.113.5") {
        const Socket socket = open(node, from);
        say(node, socket, Join{.id = id, .password = password, .clientName = "Couch", .agent = true});
        return socket;
    }
    /// What a viewer with this password hears in the end; none if it is let in or hears nothing.
    std::optional<std::string> refusal(Node& node, const std::string& password,
                                       const std::string& id = "123456789",
                                       std::string_view from = "203.0.113.5") {
        const Socket socket = join(node, password, id, from);
        time.advanceBy(3s);
        const auto error = socket->take<Error>();
        node.point->closed(socket->id());
        return error ? error->code : std::nullopt;
    }
    /// The host takes the viewer it was asked about.
    Accepted accept(Node& node, const Socket& host) {
        const auto request = host->take<JoinRequest>();
        EXPECT_TRUE(request);
        if (!request) return {};
        say(node, host,
            Accept{.clientId = request->clientId,
                   .candidates = {.addresses = {"192.168.1.2:47272"}, .quic = true, .fingerprint = "AB01"}});
        return host->take<Accepted>().value_or(Accepted{});
    }
    /// A device list's answer about one host.
    nlohmann::json poll(Node& node, const std::string& body, std::string_view from = "203.0.113.5") {
        std::optional<std::string> answer;
        node.point->devices(*ClientAddress::parse(from), body, [&](auto text) { answer = std::move(text); });
        time.advanceBy(3s);
        return answer ? nlohmann::json::parse(*answer)["devices"] : nlohmann::json();
    }

    VirtualTime time;
    VirtualQueue queue{time};
    FakeNodeBus bus{queue};
    SeenHosts::Time wall{std::chrono::seconds(1'800'000'000)};
    Node a{queue, bus, "a", wall}, b{queue, bus, "b", wall};
    std::uint64_t sockets = 0;
};

/// The same with host and viewer at one node, and at two.
class IntroductionTest : public MeetingPointTest, public testing::WithParamInterface<bool> {
protected:
    Node& there = GetParam() ? b : a;  // the viewers' node
};
INSTANTIATE_TEST_SUITE_P(Nodes, IntroductionTest, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "two" : "one"; });

TEST_P(IntroductionTest, bothSidesGetWhatTheyNeedToMeet) {
    const Socket host = registeredHost(a);
    const Socket viewer = join(there);
    EXPECT_EQ(viewer->take<JoinPending>(), JoinPending{.hostname = "Studio"});
    EXPECT_TRUE(viewer->settled && host->settled);
    const auto request = host->take<JoinRequest>();
    ASSERT_TRUE(request);
    EXPECT_EQ(*request, (JoinRequest{.clientId = request->clientId,
                                     .clientName = "Couch",
                                     .clientAddress = "203.0.113.5",
                                     .agent = true}));
    say(a, host,
        Accept{.clientId = request->clientId,
               .candidates = {.addresses = {"192.168.1.2:47272", "nowhere"},
                              .quic = true,
                              .fingerprint = "AB01",
                              .mapped = "198.51.100.7:47272"}});
    const auto toHost = host->take<Accepted>();
    const auto toViewer = viewer->take<Accepted>();
    ASSERT_TRUE(toHost && toViewer);
    EXPECT_EQ(toHost->clientId, request->clientId);
    EXPECT_EQ(toHost->sessionToken->size(), 64U);
    EXPECT_EQ(toViewer->sessionToken, toHost->sessionToken);
    EXPECT_EQ(toViewer->relay, RelayOffer(Relay{"relay.example", 3479, "pair"}));
    EXPECT_EQ(toHost->relay, toViewer->relay);
    EXPECT_EQ(toViewer->hostCandidates->addresses, std::vector<std::string>{"192.168.1.2:47272"});
    EXPECT_EQ(toViewer->hostCandidates->mapped, "198.51.100.7:47272");

    // The viewer's address goes to the host, but not everything that is called one, nor without end.
    for (const auto* mapped : {"203.0.113.5:50000", "203.0.113.5:0", "example.org:1", "[2001:db8::1]:9",
                               "1.2.3.4:5", "1.2.3.4:6"}) {
        say(there, viewer, ViewerCandidates{mapped});
    }
    for (const auto* mapped : {"203.0.113.5:50000", "[2001:db8::1]:9", "1.2.3.4:5"}) {
        EXPECT_EQ(host->take<ViewerCandidates>(), ViewerCandidates{mapped});
    }
    say(there, viewer, Hangup{});
    EXPECT_TRUE(host->take<PeerLeft>());
    EXPECT_TRUE(host->received.empty());
}

TEST_P(IntroductionTest, aHostIsAskedAboutOneViewerAtATime) {
    const Socket host = registeredHost(a);
    const Socket first = join(there), second = join(there), third = join(there), silent = join(there);
    for (const auto& viewer : {first, second, third, silent}) EXPECT_TRUE(viewer->take<JoinPending>());
    ASSERT_EQ(host->received.size(), 1U) << "or \"reject\" could mean anyone";
    say(a, host, Reject{"only its own network"});
    EXPECT_EQ(first->take<Rejected>(), Rejected{.message = "only its own network"});
    EXPECT_TRUE(host->take<JoinRequest>());
    there.point->closed(second->id());  // while the host is being asked about it
    time.settle();
    EXPECT_FALSE(host->take<PeerLeft>()) << "the next question comes behind the first";
    EXPECT_TRUE(host->take<JoinRequest>());
    EXPECT_TRUE(host->take<PeerLeft>());
    accept(a, host);
    EXPECT_TRUE(third->take<Accepted>());
    EXPECT_TRUE(host->take<JoinRequest>());
    time.advanceBy(5s);
    EXPECT_EQ(silent->take<Error>().value_or(Error{}).code, "offline") << "the host has said nothing";
}

TEST_P(IntroductionTest, whenTheHostLeavesItsViewersHearOfIt) {
    Socket host = registeredHost(a);
    const Socket accepted = join(there);
    accept(a, host);
    const Socket asked = join(there);
    EXPECT_TRUE(accepted->take<JoinPending>() && accepted->take<Accepted>() && asked->take<JoinPending>());
    a.point->closed(host->id());
    time.settle();
    EXPECT_EQ(asked->take<Error>().value_or(Error{}).code, "offline");
    EXPECT_TRUE(accepted->received.empty()) << "it may still reach the host without us";

    host = registeredHost(a);
    const Socket again = join(there);
    accept(a, host);
    EXPECT_TRUE(again->take<JoinPending>() && again->take<Accepted>());
    say(a, host, Hangup{});
    EXPECT_TRUE(again->take<PeerLeft>());
}

TEST_P(IntroductionTest, whoIsNotLetInHearsWhy) {
    EXPECT_EQ(refusal(there, "042137"), "wrong_password") << "nobody was ever here";
    const Socket host = registeredHost(a);
    EXPECT_EQ(refusal(there, "999999"), "wrong_password");
    EXPECT_EQ(refusal(there, "042137", "12345678"), "wrong_password") << "eight digits";
    EXPECT_EQ(refusal(there, "042137"), std::nullopt);
    say(a, host, HostAvailability{false});
    EXPECT_EQ(refusal(there, "042137"), "offline");
    a.point->closed(host->id());
    EXPECT_EQ(refusal(there, "042137"), "offline") << "seen just now";
    EXPECT_EQ(refusal(there, "999999"), "wrong_password");
    wall += 30 * 24h;
    EXPECT_EQ(refusal(there, "042137"), "wrong_password") << "forgotten";
}

TEST_P(IntroductionTest, anUnknownIdTakesAsLongAsAWrongPassword) {
    registeredHost(a);
    const auto delay = [&](const std::string& id) {
        const auto start = time.now();
        const Socket viewer = join(there, "999999", id);
        EXPECT_TRUE(time.advanceUntil([&] { return !viewer->received.empty(); }, 5s));
        EXPECT_EQ(viewer->received.front(),
                  encode(Error{.message = "The connection was refused.", .code = "wrong_password"}));
        return time.now() - start;
    };
    const auto known = delay("123456789");
    EXPECT_GT(known, 0ms);
    EXPECT_EQ(delay("987654321"), known);
    EXPECT_EQ(delay("not an ID"), known);
}

TEST_P(IntroductionTest, aDeviceListHearsOfEachHost) {
    const Socket host = registeredHost(a);
    const auto answer = poll(there, R"({"devices":[{"id":"123456789","password":"042137"},
        {"id":"123456789","password":"000000"},{"id":"111111111","password":"042137"},{"password":7},5]})");
    ASSERT_EQ(answer.size(), 5U);
    EXPECT_EQ(answer[0], nlohmann::json::parse(
                             R"({"id":"123456789","online":true,"passwordChanged":false,"locked":false})"));
    EXPECT_EQ(answer[1]["passwordChanged"], true);
    EXPECT_EQ(answer[2], nlohmann::json::parse(
                             R"({"id":"111111111","online":false,"passwordChanged":true,"locked":false})"));
    EXPECT_TRUE(host->received.empty()) << "nobody wants to connect";
    a.point->closed(host->id());
    const auto away = poll(there, R"({"devices":[{"id":"123456789","password":"042137"}]})");
    EXPECT_EQ(away[0]["online"], false);
    EXPECT_EQ(away[0]["passwordChanged"], false);
    for (const auto* body : {"", "[]", R"({"devices":5})", R"({"devices":[)"})
        EXPECT_TRUE(poll(there, body).is_null());
}

TEST_P(IntroductionTest, guessingLocksTheIdAndWarnsTheHost) {
    const Socket host = registeredHost(a);
    const Socket owner = join(there, "042137", "123456789", "203.0.113.77");
    accept(a, host);
    int wrong = 0;
    for (int source = 1; host->received.empty() && source < 100; ++source) {
        for (int guess = 0; guess < 6; ++guess) {
            const auto code = refusal(there, std::to_string(100'000 + wrong), "123456789",
                                      "192.0.2." + std::to_string(source));
            if (code == "wrong_password") ++wrong;
        }
    }
    EXPECT_EQ(wrong, 20);
    EXPECT_TRUE(host->take<SecurityNotice>());
    EXPECT_EQ(refusal(there, "042137", "123456789", "192.0.2.200"), "locked") << "even with the right one";
    EXPECT_EQ(refusal(a, "042137", "123456789", "192.0.2.200"), "locked") << "at every node";
    EXPECT_EQ(refusal(there, "042137", "123456789", "203.0.113.77"), std::nullopt) << "who was here before";
    const auto listed = poll(there, R"({"devices":[{"id":"123456789","password":"042137"}]})", "192.0.2.200");
    EXPECT_EQ(listed[0]["locked"], true);
    time.advanceBy(1h);
    EXPECT_EQ(refusal(there, "042137", "123456789", "192.0.2.200"), std::nullopt);
}

// Registering, at the same node as before and at another

TEST_P(IntroductionTest, aHostThatComesBackReplacesItself) {
    const Socket old = registeredHost(a);
    const Socket waiting = join(a);
    EXPECT_TRUE(old->take<JoinRequest>());
    const Socket fresh = registeredHost(there, "042137", "198.51.100.99");
    EXPECT_EQ(old->take<Error>().value_or(Error{}).code, "busy") << "in case it is another machine";
    EXPECT_FALSE(old->closedWith) << "a copy of the host would come back for ever";
    EXPECT_EQ(fresh->take<JoinRequest>().has_value(), !GetParam()) << "it may have missed the question";
    a.point->closed(old->id());
    EXPECT_TRUE(join(a)->take<JoinPending>());
    time.advanceBy(1min);
    EXPECT_FALSE(old->closedWith);
}

TEST_P(IntroductionTest, whoWasReplacedComesBackOnceTheOtherIsGone) {
    const HostCreate again{.hostId = "123456789", .password = "042137", .hostname = "Studio"};
    const Socket first = registeredHost(a);
    const Socket copy = registeredHost(there, "042137", "198.51.100.99");
    EXPECT_TRUE(first->take<Error>());
    for (int i = 0; i < 10; ++i) {
        say(a, first, again);
        there.point->answeredProbe(copy->id());
        time.advanceBy(2s);
        EXPECT_EQ(first->take<Error>().value_or(Error{}).code, "busy");
    }
    EXPECT_FALSE(copy->take<Error>() || copy->take<SecurityNotice>())
        << "it keeps its place, and is not warned";

    there.point->closed(copy->id());
    say(a, first, again);
    time.advanceBy(2s);
    EXPECT_TRUE(first->take<SessionCreated>());
    EXPECT_TRUE(join(there)->take<JoinPending>());
}

TEST_P(IntroductionTest, anotherPasswordHasToWaitForTheHoldersSignOfLife) {
    const Socket holder = registeredHost(a);
    const Socket other = host(there, "777777", "198.51.100.99");
    EXPECT_TRUE(other->received.empty());
    EXPECT_EQ(holder->probes, 1);
    a.point->answeredProbe(holder->id());
    time.settle();
    if (GetParam()) time.advanceBy(2s);
    EXPECT_EQ(other->take<Error>().value_or(Error{}).code, "busy");
    EXPECT_EQ(refusal(a, "042137"), std::nullopt) << "the holder keeps it";

    const Socket third = host(a, "777777", "198.51.100.99");
    EXPECT_TRUE(third->received.empty());
    time.advanceBy(5s);
    EXPECT_EQ(holder->closedWith, CloseReason::policy) << "no sign of life";
    EXPECT_TRUE(third->take<SessionCreated>());
}

TEST_F(MeetingPointTest, theHoldersReturnIsItsSignOfLife) {
    registeredHost(a);
    const Socket other = host(a, "777777", "198.51.100.99");
    const Socket back = registeredHost(a);
    EXPECT_EQ(other->take<Error>().value_or(Error{}).code, "busy");
    time.advanceBy(1min);
    EXPECT_FALSE(back->closedWith);
}

TEST_F(MeetingPointTest, aHostMayChangeItsPassword) {
    const Socket host = registeredHost(a);
    say(a, host, HostCreate{.hostId = "123456789", .password = "111111"});
    EXPECT_TRUE(host->take<SessionCreated>());
    EXPECT_EQ(refusal(a, "042137"), "wrong_password");
    EXPECT_EQ(refusal(a, "111111"), std::nullopt);
}

TEST_F(MeetingPointTest, registeringIsNoWayToGuess) {
    const Socket holder = registeredHost(a);
    for (int guess = 0; guess < 5; ++guess) {
        const Socket other = host(a, std::to_string(100'000 + guess), "192.0.2.1");
        a.point->answeredProbe(holder->id());
        time.settle();
        EXPECT_EQ(other->take<Error>().value_or(Error{}).code, "busy");
    }
    const Socket right = host(a, "042137", "192.0.2.1");
    a.point->answeredProbe(holder->id());
    EXPECT_EQ(right->take<Error>().value_or(Error{}).code, "busy") << "the sixth is not even looked at";
}

TEST_F(MeetingPointTest, sprayingOneGuessOverManyIdsIsStopped) {
    registeredHost(a);
    int allowed = 0;
    for (int id = 0; id < 30; ++id) {
        if (refusal(a, "042137", std::to_string(200'000'000 + id), "192.0.2.1") == "wrong_password")
            ++allowed;
    }
    EXPECT_EQ(allowed, 10);
    EXPECT_EQ(refusal(a, "042137", "123456789", "192.0.2.1"), "rate_limited");
    EXPECT_EQ(refusal(a, "042137", "123456789", "192.0.2.2"), std::nullopt);
    // All at once in one list gets no further than one after the other.
    std::string list;
    for (int id = 0; id < 99; ++id) {
        list += R"({"id":")" + std::to_string(300'000'000 + id) + R"(","password":"1"},)";
    }
    EXPECT_EQ(
        poll(a, R"({"devices":[)" + list + R"({"id":"123456789","password":"042137"}]})", "192.0.2.3").size(),
        10U);
    // An old password that a device list asks with again and again teaches nobody anything.
    for (int look = 0; look < 50; ++look) {
        poll(a, R"({"devices":[{"id":"123456789","password":"555555"}]})", "192.0.2.4");
        time.advanceBy(1min);
    }
    EXPECT_EQ(refusal(a, "042137", "123456789", "192.0.2.4"), std::nullopt);
}

TEST_F(MeetingPointTest, whatIsNoMessageEndsTheSocket) {
    const struct {
        const char* text;
        bool closes;
    } cases[] = {
        {"", true},
        {"{", true},
        {"[]", true},
        {R"({"type":5})", true},
        {R"({"type":"join"})", true},
        {R"({"type":"host_create","hostId":123456789,"password":"042137"})", true},
        {R"({"type":"host_create","hostId":"12345678","password":"042137"})", true},
        {R"({"type":"host_create","hostId":"123456789","password":"04213"})", true},
        {R"({"type":"weather","sunny":true})", false},
        {R"({"type":"accept","clientId":"x","candidates":{}})", false},
        {R"({"type":"reject"})", false},
        {R"({"type":"candidates","candidates":{"mapped":"1.2.3.4:5"}})", false},
        {R"({"type":"hangup"})", false},
    };
    for (const auto& [text, closes] : cases) {
        const Socket socket = open(a, "192.0.2.1");
        a.point->received(socket->id(), text);
        time.settle();
        EXPECT_EQ(socket->closedWith == CloseReason::policy, closes) << text;
    }
}

TEST_F(MeetingPointTest, aSocketThatSaysNothingIsClosed) {
    const Socket silent = open(a, "192.0.2.1");
    const Socket host = registeredHost(a);
    const Socket viewer = join(a);
    const Socket refused = join(a, "999999");
    time.advanceBy(9s);
    EXPECT_FALSE(silent->closedWith);
    time.advanceBy(6s);
    EXPECT_EQ(silent->closedWith, CloseReason::policy);
    EXPECT_EQ(refused->closedWith, CloseReason::policy);
    EXPECT_FALSE(host->closedWith);
    accept(a, host);
}

// Several nodes

TEST_F(MeetingPointTest, aNodeThatHearsNobodyGoesOnAlone) {
    registeredHost(a);
    a.link.isUp = false;
    EXPECT_EQ(refusal(b, "042137"), "offline") << "it knows the host from before";
    EXPECT_EQ(refusal(a, "042137"), std::nullopt);
    a.link.isUp = true;
    a.link.isMute = true;
    EXPECT_EQ(refusal(b, "042137"), "offline") << "no answer is an answer";
    const Socket moved = host(b);
    time.advanceBy(2s);
    EXPECT_TRUE(moved->take<SessionCreated>());
}

TEST_F(MeetingPointTest, aViewerThatLeavesTooEarlyIsNotWaitedFor) {
    const Socket host = registeredHost(a);
    const Socket viewer = open(b, "203.0.113.5");
    b.point->received(viewer->id(), encode(Join{.id = "123456789", .password = "042137"}));
    b.point->closed(viewer->id());  // before the other node has answered
    time.settle();
    EXPECT_TRUE(host->take<JoinRequest>());
    EXPECT_TRUE(host->take<PeerLeft>());
}

}  // namespace
}  // namespace velmora
