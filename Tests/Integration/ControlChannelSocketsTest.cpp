#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <utility>
#include <vector>

#include "Host/QUICServer.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Tests/TestIdentity.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "Viewer/Session/QUICClient.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// Waits for a promise that some queue keeps; throws, and so fails the test, when it does not.
template <class T>
T await(std::promise<T>& promise) {
    auto future = promise.get_future();
    if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("waited in vain");
    return future.get();
}

/// The threads of the program: main, the host's network queue, the viewer's, and the stack's own. What the
/// virtual tests cannot show, ThreadSanitizer finds here.
TEST(ControlChannelSocketsTest, carriesHelloVideoAndByeBetweenThreads) {
    ThreadQueue hostQueue("velmora.quic"), viewerQueue("velmora.quic.client");
    ThreadQueue main("main");
    const auto stack = makeQuicTransportStack();
    const HostIdentityCertificate certificate{testIdentity().identity, testIdentity().fingerprint};
    const std::uint16_t port = UdpSocket::bindTo(0).value()->port();

    std::unique_ptr<QUICServer> server;
    std::unique_ptr<Listener> listener;
    std::unique_ptr<QUICClient> client;
    std::shared_ptr<MessageConnection> hostEnd, viewerEnd;
    std::shared_ptr<DatagramFlow> hostVideo;
    std::promise<bool> listening, handedOver, said;
    std::promise<std::string> greeted, reason;
    std::promise<std::size_t> shown;
    std::promise<TransportState> ended;
    constexpr std::uint32_t frameCount = 100;

    main.runSync([&] {
        server = std::make_unique<QUICServer>(
            [&]() -> Result<HostIdentityCertificate, KeyStore::Lack> { return certificate; }, hostQueue,
            main);
        server->onNewViewer = [&](auto connection, auto video) {
            hostEnd = std::move(connection);
            hostVideo = std::move(video);
            hostEnd->onMessage = [&](MessageType type, const Bytes& payload) {
                if (type == MessageType::hello) greeted.set_value(Hello::decode(payload).value().name);
                if (type == MessageType::bye) said.set_value(true);
            };
            hostEnd->onStateChange = [&](TransportState state, const auto&) { ended.set_value(state); };
            hostEnd->adoptStarted();
            handedOver.set_value(hostVideo != nullptr);
        };
        server->loadCertificate([&](std::optional<KeyStore::Lack>) {
            listener = stack->listenOn(port, {.identity = server->identity});
            listener->onState = [&](TransportState state, const auto&) {
                if (state == TransportState::ready) listening.set_value(true);
            };
            listener->onGroup = [&](std::shared_ptr<ConnectionGroup> group) {
                server->accept(std::move(group));
            };
            listener->start(main);
        });
    });
    await(listening);

    std::size_t frames = 0;  // on viewerQueue
    main.runSync([&] {
        client = std::make_unique<QUICClient>(
            QUICClient::Attempt{.label = "LAN",
                                .endpoint = Endpoint::hostPort("127.0.0.1", port),
                                .verification = QUICSetup::Pinned{certificate.fingerprint}},
            *stack, viewerQueue, main);
        client->onReady = [&](QUICClient& ready) {
            viewerEnd = std::make_shared<MessageConnection>(ready.openControlStream(), viewerQueue);
            viewerEnd->start();
            viewerEnd->sendJSON(MessageType::hello, Hello{.name = "Ann"});
            ready.startVideo({.onFrame =
                                  [&](const Bytes& record) {
                                      EXPECT_EQ(record.size(), 5000u);
                                      if (++frames == frameCount) shown.set_value(frames);
                                  },
                              .onGap = {},
                              .onNack = {}});
        };
        client->start();
    });
    EXPECT_TRUE(await(handedOver)) << "handed over without its flow";
    EXPECT_EQ(await(greeted), "Ann");

    main.runSync([&] {
        const Bytes record(5000, 1);
        for (std::uint32_t frame = 1; frame <= frameCount; ++frame) {
            hostVideo->send(VideoPackets::split(record, frame, 1000), frame);
        }
    });
    EXPECT_EQ(await(shown), frameCount);

    main.runSync([&] {
        viewerEnd->send(MessageType::bye);
        viewerEnd->cancel();
        client.reset();
        viewerEnd.reset();
    });
    EXPECT_TRUE(await(said));
    EXPECT_EQ(await(ended), TransportState::cancelled);
    main.runSync([&] {
        listener.reset();
        server.reset();
        hostEnd.reset();
        hostVideo.reset();
    });
    hostQueue.runSync([] {});
    viewerQueue.runSync([] {});
}

}  // namespace
}  // namespace velmora
