// A host on its real threads, over real sockets: what the virtual tests cannot show, ThreadSanitizer finds
// here.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "Host/StreamServer.h"
#include "Host/StreamSession.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Testing/FakeCursorSource.h"
#include "Testing/FakeDisplays.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/FakeTextFocusSource.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/ScriptedViewer.h"
#include "Tests/TestIdentity.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// Shows another grey every 4 ms, on the capture queue.
class FlickeringScreen final : public ScreenCaptureFactory {
public:
    std::unique_ptr<ScreenCapture> make(Queue& queue) override { return std::make_unique<Capture>(queue); }

private:
    struct Capture final : ScreenCapture {
        explicit Capture(Queue& queue) : queue(queue) {}
        void start(const Configuration& configuration, Completion completion) override {
            update(configuration, std::move(completion));
            tick();
        }
        void update(const Configuration& configuration, Completion completion) override {
            queue.post([this, configuration, completion = std::move(completion)]() mutable {
                buffer = std::make_shared<PictureBuffer>(configuration.size);
                completion(Done());
            });
        }
        void stop(Completion completion) override {
            queue.post([this, completion = std::move(completion)]() mutable {
                timer.reset();
                completion(Done());
            });
        }
        void resume() override {}
        void captureWhole() override {}
        void tick() {
            timer = queue.after(4ms, [this] {
                tick();
                if (!buffer || (admit && admit() == Admission::putOff)) return;
                std::fill(buffer->y, buffer->u, static_cast<std::uint8_t>(16 + ++grey % 200));
                const PixelRect whole{0, 0, buffer->size.width, buffer->size.height};
                if (onSample) onSample({PictureBuffer::view(buffer), {&whole, 1}, queue.nowMicros()});
            });
        }
        Queue& queue;
        std::shared_ptr<PictureBuffer> buffer;
        TimerToken timer;
        int grey = 0;
    };
};

class HostThreadsTest : public testing::Test {
protected:
    HostThreadsTest() {
        displays.set({display(1), display(2)});
        main.runSync([this] { makeServer(); });
    }
    ~HostThreadsTest() override {
        viewerQueue.runSync([this] { viewer.reset(); });
        main.runSync([this] { server.reset(); });
        // What was in flight when the server went still runs on queues that are there.
        for (Queue* queue : {static_cast<Queue*>(&quic), static_cast<Queue*>(&displayQueue),
                             static_cast<Queue*>(&capture), static_cast<Queue*>(&input)}) {
            queue->runSync([] {});
        }
        viewerQueue.runSync([] {});
    }
    static Display display(DisplayId id) {
        return {.id = id,
                .name = "DP",
                .bounds = {0, 0, 320, 200},
                .pixels = {320, 200 + static_cast<int>(id) * 2}};
    }
    void makeServer() {
        server = std::make_unique<StreamServer>(
            StreamServer::Services{
                .main = main,
                .quic = quic,
                .transport = *stack,
                .discovery = discovery,
                .keepAwake = keepAwake,
                .machine = machine,
                .loadCertificate = []() -> Result<HostIdentityCertificate, KeyStore::Lack> {
                    return HostIdentityCertificate{testIdentity().identity, testIdentity().fingerprint};
                },
                .machineKind = [] { return MacKind::mac; },
                .makeSession = [this](AdmittedViewer admitted) { return makeSession(std::move(admitted)); }},
            ServerSettings{.codec = VideoCodec::h264}, StreamServer::Parameters{.port = port});
        server->identity = [] { return HostCredentials{"123456789", "042137"}; };
        server->onStatus = [this](const std::string& text, bool) {
            if (text == "Running · waiting for a viewer") isListening = true;
        };
        server->start();
    }
    std::unique_ptr<HostSession> makeSession(AdmittedViewer admitted) {
        return std::make_unique<StreamSession>(std::move(admitted),
                                               StreamSession::Services{.main = main,
                                                                       .capture = capture,
                                                                       .display = displayQueue,
                                                                       .input = input,
                                                                       .keepAwake = keepAwake,
                                                                       .displays = displays,
                                                                       .captures = screen,
                                                                       .compressors = compressors,
                                                                       .cursor = cursor,
                                                                       .textFocus = textFocus,
                                                                       .cpuPercent = [] { return 1.0; }});
    }
    /// Waits, for as long as a slow machine under a sanitizer may take.
    bool holdsSoon(Queue& queue, const std::function<bool()>& condition) {
        for (const auto end = HostClock::now() + 20s; HostClock::now() < end;) {
            bool holds = false;
            queue.runSync([&] { holds = condition(); });
            if (holds) return true;
            std::this_thread::sleep_for(2ms);
        }
        return false;
    }
    void connect() {
        ASSERT_TRUE(holdsSoon(main, [this] { return isListening; }));
        viewerQueue.runSync([this] {
            viewer =
                std::make_unique<ScriptedViewer>(*stack, viewerQueue, ScriptedViewer::Options{.port = port});
            viewer->say({.name = "Desk", .deviceID = "A", .password = "042137"});
        });
        ASSERT_TRUE(holdsSoon(viewerQueue, [this] { return viewer->frames.size() >= 20; }));
    }

    ThreadQueue main{"main"}, quic{"velmora.quic"}, capture{"velmora.capture"},
        displayQueue{"velmora.display"}, input{"velmora.input"}, viewerQueue{"viewer"};
    const std::uint16_t port = UdpSocket::bindTo(0).value()->port();
    const std::unique_ptr<TransportStack> stack = makeQuicTransportStack();
    FakeServiceDiscovery discovery;
    FakeKeepAwake keepAwake{main};
    FakeMachineInfo machine;
    FakeDisplays displays;
    FlickeringScreen screen;
    FakeVideoCompressorFactory compressors;
    FakeCursorSource cursor{main};
    FakeTextFocusSource textFocus{main};
    bool isListening = false;  // on main
    std::unique_ptr<StreamServer> server;
    std::unique_ptr<ScriptedViewer> viewer;  // on viewerQueue
};

TEST_F(HostThreadsTest, everythingAViewerAsksWhilePicturesMoveIsServed) {
    connect();
    viewerQueue.runSync([this] {
        for (std::uint32_t frame = 1; frame < 20; ++frame) {
            viewer->send(MessageType::nack, Nack{.frame = frame}.encode());
            viewer->send(MessageType::ping, Ping{frame}.encode());
            viewer->send(MessageType::requestKeyframe);
            viewer->send(MessageType::bitrateHint, BitrateHint{frame % 9}.encode());
        }
        viewer->send(MessageType::selectDisplay, DisplaySelection{.displayID = 2}.encode());
    });
    EXPECT_TRUE(holdsSoon(viewerQueue, [this] {
        const auto list = viewer->lastDisplayList();
        return viewer->countOf(MessageType::pong) == 19 && list && list->currentID == 2u &&
               viewer->lastConfig()->height == 204u;
    }));
    main.runSync([this] { server->disconnect(); });
    EXPECT_TRUE(holdsSoon(viewerQueue, [this] { return viewer->ended.has_value(); }));
}

TEST_F(HostThreadsTest, aReconnectingDeviceTakesOverInMidStream) {
    connect();
    auto before = std::move(viewer);
    connect();
    EXPECT_TRUE(holdsSoon(viewerQueue, [&] { return before->ended.has_value(); }));
    viewerQueue.runSync([&] { before.reset(); });
}

TEST_F(HostThreadsTest, theServerMayGoInMidStream) {
    connect();
    main.runSync([this] { server->stop(); });
    EXPECT_TRUE(holdsSoon(viewerQueue, [this] { return viewer->ended.has_value(); }));
}

}  // namespace
}  // namespace velmora
