#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Host/QUICServer.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "Viewer/Session/QUICClient.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

/// A viewer's attempt and a host's pairing, as the roles use them, up to the first messages.
class ControlChannelTest : public ::testing::Test {
protected:
    ControlChannelTest() {
        link.setConditions({.delay = 20ms});
        listener = link.listenOn(47272, {.identity = TransportIdentity{bytesOf("FINGERPRINT"), {}}});
        listener->onGroup = [this](std::shared_ptr<ConnectionGroup> group) {
            server.accept(std::move(group));
        };
        listener->start(main);
        server.onNewViewer = [this](auto connection, auto video) {
            admit(std::move(connection), std::move(video));
        };
        client.onReady = [this](QUICClient&) { sayHello(); };
    }
    void admit(std::shared_ptr<MessageConnection> connection, std::shared_ptr<DatagramFlow> video) {
        handedOverAt = time.now() - begin;
        hostEnd = std::move(connection);
        hostVideo = std::move(video);
        hostEnd->onMessage = [this](MessageType type, const Bytes& payload) {
            const auto hello = Hello::decode(payload);
            atHost.push_back(type == MessageType::hello && hello ? hello.value().name : "another message");
        };
        hostEnd->onStateChange = [this](TransportState state, const auto&) {
            if (state == TransportState::cancelled) atHost.push_back("cancelled");
            if (state == TransportState::failed) atHost.push_back("failed");
        };
        hostEnd->adoptStarted();
    }
    void sayHello() {
        viewerEnd = std::make_shared<MessageConnection>(client.openControlStream(), viewerQueue);
        viewerEnd->onMessage = [this](MessageType type, const Bytes& payload) {
            atViewer.push_back(type == MessageType::log ? textOf(payload) : "another message");
        };
        viewerEnd->onStateChange = [this](TransportState state, const auto&) {
            if (state == TransportState::cancelled) atViewer.push_back("cancelled");
            if (state == TransportState::failed) atViewer.push_back("failed");
        };
        viewerEnd->start();
        viewerEnd->sendJSON(MessageType::hello, Hello{.name = "Ann’s Mac"});
        client.startVideo({});
    }
    void connect() {
        begin = time.now();
        client.start();
        time.advanceBy(500ms);
        ASSERT_TRUE(hostEnd);
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue main{time, "main"}, hostQueue{time, "velmora.quic"},
        viewerQueue{time, "velmora.quic.client"};
    std::unique_ptr<Listener> listener;
    QUICServer server{
        []() -> Result<HostIdentityCertificate, KeyStore::Lack> { return KeyStore::Lack::absent; }, hostQueue,
        main};
    QUICClient client{{.label = "LAN",
                       .endpoint = Endpoint::hostPort("192.0.2.1", 47272),
                       .verification = QUICSetup::Pinned{"FINGERPRINT"}},
                      link,
                      viewerQueue,
                      main};
    HostClock::time_point begin;
    std::shared_ptr<MessageConnection> hostEnd, viewerEnd;
    std::shared_ptr<DatagramFlow> hostVideo;
    HostClock::duration handedOverAt{0};
    std::vector<std::string> atHost, atViewer;
};

TEST_F(ControlChannelTest, helloIsWithTheHostOneAndAHalfRoundTripsAfterTheAttemptBegan) {
    connect();
    EXPECT_EQ(handedOverAt, 60ms);
    EXPECT_TRUE(hostVideo);
    EXPECT_THAT(atHost, ElementsAre("Ann’s Mac"));
}

TEST_F(ControlChannelTest, aLostOpeningByteCostsATenthOfASecondAndNotTheDatagrams) {
    int dropped = 0;
    link.toListener.dropsDatagram = [&](ByteView) { return dropped++ < 1; };
    connect();
    EXPECT_EQ(handedOverAt, 160ms);
    EXPECT_TRUE(hostVideo);
}

TEST_F(ControlChannelTest, theLastWordOfEitherSideArrivesBeforeTheEnd) {
    connect();
    hostEnd->send(MessageType::log, viewOf("Update both Macs"));
    hostEnd->cancel();
    hostVideo->cancel();
    time.advanceBy(1s);
    EXPECT_THAT(atViewer, ElementsAre("Update both Macs", "cancelled"));
}

TEST_F(ControlChannelTest, aByeArrivesAlthoughTheViewerTearsDownAtOnce) {
    connect();
    viewerEnd->send(MessageType::bye);
    viewerEnd->cancel();
    client.cancel();
    time.advanceBy(1s);
    EXPECT_THAT(atHost, ElementsAre("Ann’s Mac", "another message", "cancelled"));
    EXPECT_THAT(atViewer, ElementsAre("cancelled"));
}

}  // namespace
}  // namespace velmora
