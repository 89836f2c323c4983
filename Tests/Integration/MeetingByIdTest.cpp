// A viewer that knows a Host ID and a password reaches the host: both real, the rendezvous service between
// them played by the test, in virtual time.

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "Host/HostSignaling.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakeNetworkAddresses.h"
#include "Testing/FakePathMonitor.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/FakeUdpPort.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/FakeWebSocket.h"
#include "Testing/ScriptedHost.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/SignalingRendezvousPath.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class MeetingByIdTest : public testing::Test {
protected:
    MeetingByIdTest() {
        hostPreferences.set("host.id", std::string("123456789"));
        EXPECT_TRUE(keychain.save("042137", "com.velmora.host", "password", "label"));
        identity.emplace(hostPreferences, keychain, main, main);
        time.settle();
        signaling.emplace(
            *url, HostSignaling::Services{
                      .identity = *identity,
                      .server = {.authorize = [this](const auto& token, const auto&) { authorized = token; },
                                 .allowsPasswordAccess = [] { return true; },
                                 .hasViewer = [] { return false; },
                                 .fingerprint = [] { return std::string("AB01"); }},
                      .sockets = hostSockets,
                      .probes = probes,
                      .addresses = addresses,
                      .machine = machine,
                      .main = main});
        signaling->start();
        hostSide().open();
        tellHost(rendezvous::SessionCreated{.id = "123456789"});
    }
    ~MeetingByIdTest() override {
        viewer.reset();
        time.advanceBy(1s);
    }
    void connect() {
        ViewerConnection::Services services{
            .transport = link,
            .preferences = viewerPreferences,
            .paths = path,
            .decompressors = decompressors,
            .makeRendezvousPath = [this](RendezvousPath::Ladder& ladder) {
                return std::make_unique<SignalingRendezvousPath>(
                    ladder, *url,
                    SignalingRendezvousPath::Services{viewerSockets, probes, viewerPreferences, main});
            }};
        viewer =
            std::make_unique<ViewerConnection>(ViewerOptions{.target = RemoteDevices::HostId{"123456789"},
                                                             .name = "Studio",
                                                             .password = "042137",
                                                             .clientName = "Couch"},
                                               std::move(services), main, client);
        viewer->onEnded = [this](const ConnectionError& error) {
            ended = error.kind;
            viewer.reset();
        };
        viewer->start(std::nullopt);
        viewerSide().open();
    }
    FakeWebSocketServerEnd& hostSide() { return hostSockets.newest(); }
    FakeWebSocketServerEnd& viewerSide() { return viewerSockets.newest(); }
    void tellHost(const rendezvous::ToClient& message) { hostSide().sendText(rendezvous::encode(message)); }
    void tellViewer(const rendezvous::ToClient& message) {
        viewerSide().sendText(rendezvous::encode(message));
    }
    template <class Message>
    Message lastFrom(FakeWebSocketServerEnd& side) {
        const auto message = rendezvous::decodeFromClient(side.received.at(side.received.size() - 1));
        return std::get<Message>(message.value());
    }
    /// What the service does between a right password and the host's yes.
    void introduce() {
        const auto create = rendezvous::decodeFromClient(hostSide().received.at(0));
        const auto join = lastFrom<rendezvous::Join>(viewerSide());
        EXPECT_EQ(join.id, std::get<rendezvous::HostCreate>(*create).hostId);
        EXPECT_EQ(join.password, std::get<rendezvous::HostCreate>(*create).password);
        tellHost(rendezvous::JoinRequest{.clientId = "c1", .clientName = join.clientName});
        time.advanceBy(1200ms);  // nobody answers STUN here
        const auto accept = lastFrom<rendezvous::Accept>(hostSide());
        EXPECT_EQ(accept.clientId, "c1");
        tellHost(rendezvous::Accepted{.sessionToken = "token", .clientId = "c1"});
        tellViewer(rendezvous::Accepted{.sessionToken = "token", .hostCandidates = accept.candidates});
    }

    const Result<SignalingUrl> url = SignalingUrl::parse("wss://rendezvous.example");
    VirtualTime time;
    VirtualQueue main{time, "main"}, client{time, "velmora.quic.client"}, hostQueue{time, "host"};
    SimulatedLink link{time};
    FakePreferenceStore hostPreferences, viewerPreferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    FakeUdpPort network;
    UdpProbes probes{network, "stun.example", main};
    FakeNetworkAddresses addresses;
    FakeMachineInfo machine;
    FakePathMonitor path{main};
    FakeVideoDecompressorFactory decompressors;
    FakeWebSocketFactory hostSockets, viewerSockets;
    std::optional<HostIdentity> identity;
    std::optional<HostSignaling> signaling;
    std::optional<ScriptedHost> host{std::in_place, link, hostQueue, ScriptedHost::Options{}};
    std::unique_ptr<ViewerConnection> viewer;
    std::optional<std::string> authorized;
    std::optional<ConnectionError::Kind> ended;
};

TEST_F(MeetingByIdTest, theViewerComesWithTheTokenThatTheHostWasGiven) {
    connect();
    introduce();
    time.advanceBy(100ms);
    const auto hello = host->hello();
    ASSERT_TRUE(hello);
    EXPECT_EQ(hello->sessionToken, authorized);
    EXPECT_EQ(hello->sessionToken, "token");
    EXPECT_EQ(hello->password, std::nullopt) << "the service has taken it already";
    EXPECT_EQ(viewerPreferences.string("hostFingerprint:123456789"), "AB01");

    viewer.reset();
    EXPECT_EQ(viewerSide().received.back(), R"({"type":"hangup"})");
    EXPECT_TRUE(viewerSide().closedByClient);
}

TEST_F(MeetingByIdTest, aRefusalEndsTheConnectionWhichMayBeDestroyedThen) {
    connect();
    tellViewer(rendezvous::Error{.message = "no", .code = "wrong_password"});
    EXPECT_EQ(ended, ConnectionError::Kind::wrongPassword);
    EXPECT_FALSE(viewer);
    EXPECT_EQ(viewerSide().received.back(), R"({"type":"hangup"})");
}

TEST_F(MeetingByIdTest, anAdministratorEndsARunningSession) {
    connect();
    introduce();
    time.advanceBy(100ms);
    ASSERT_TRUE(host->hello());
    tellViewer(rendezvous::AdminKick{});
    EXPECT_EQ(ended, ConnectionError::Kind::endedByHost);
}

TEST_F(MeetingByIdTest, aHostThatCannotBeReachedIsGivenUpAfterTheRace) {
    host.reset();
    connect();
    introduce();
    time.advanceBy(9s);
    EXPECT_EQ(ended, std::nullopt);
    time.advanceBy(1s);
    EXPECT_EQ(ended, ConnectionError::Kind::unreachable);
}

}  // namespace
}  // namespace velmora
