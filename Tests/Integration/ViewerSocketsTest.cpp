#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>

#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScriptedHost.h"
#include "Tests/TestIdentity.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class SilentPath final : public PathMonitor {
public:
    std::unique_ptr<Request> currentPath(std::function<void(PathKind)>) override { return nullptr; }
};

/// The threads of the program: main, the viewer's network queue, the stack's own, and a host that shows a new
/// picture every 2 ms. What the tests in virtual time cannot show, ThreadSanitizer finds here.
class ViewerSocketsTest : public testing::Test {
protected:
    ViewerSocketsTest() {
        hostQueue.runSync([this] {
            host = std::make_unique<ScriptedHost>(
                *stack, hostQueue, ScriptedHost::Options{.port = port, .identity = testIdentity().identity});
            showPictures();
        });
    }
    ~ViewerSocketsTest() override {
        main.runSync([this] { viewer.reset(); });
        hostQueue.runSync([this] {
            beat.reset();
            host.reset();
        });
    }

    /// On the host's queue: starts a stream for each new viewer and keeps it moving.
    void showPictures() {
        if (const auto hellos = host->countOf(MessageType::hello); hellos != greeted) {
            greeted = hellos;
            host->startStream({64, 48});
            host->sendFrame({.keyframe = true, .way = ScriptedHost::Frame::Way::stream});
        } else if (greeted > 0 && host->hasFlow()) {
            host->sendFrame({});
        }
        beat = hostQueue.after(2ms, [this] { showPictures(); });
    }

    /// Connects, and runs `act` on the main queue once so many pictures have been decoded.
    void connectAndAfter(int pictures, std::function<void()> act) {
        main.runSync([&] {
            viewer = std::make_unique<ViewerConnection>(
                ViewerOptions{.target = Endpoint::hostPort("127.0.0.1", port), .name = "Desk"},
                ViewerConnection::Services{.transport = *stack,
                                           .preferences = preferences,
                                           .paths = path,
                                           .decompressors = decompressors},
                main, client);
            viewer->onDecodedFrame = [this, pictures, act, seen = 0](const DecodedFrame&) mutable {
                if (++seen == pictures) main.post(act);
            };
            viewer->onEnded = [this](const ConnectionError& error) {
                viewer.reset();
                ended.set_value(error.kind);
            };
            viewer->start(std::nullopt);
        });
    }
    template <class T>
    static T await(std::promise<T>& promise) {
        auto future = promise.get_future();
        if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("waited in vain");
        return future.get();
    }

    ThreadQueue main{"main"}, client{"velmora.quic.client"}, hostQueue{"host"};
    FakePreferenceStore preferences;
    SilentPath path;
    FakeVideoDecompressorFactory decompressors;
    const std::uint16_t port = UdpSocket::bindTo(0).value()->port();
    const std::unique_ptr<NetworkStack> stack = makeQuicTransportStack();
    std::unique_ptr<ScriptedHost> host;        // on its queue
    TimerToken beat;                           // on the host's queue
    int greeted = 0;                           // on the host's queue
    std::unique_ptr<ViewerConnection> viewer;  // on main
    std::promise<ConnectionError::Kind> ended;
};

TEST_F(ViewerSocketsTest, aViewerMayGoWhilePicturesArrive) {
    for (int pictures = 1; pictures <= 12; ++pictures) {
        std::promise<bool> gone;
        connectAndAfter(pictures, [&] {
            EXPECT_NE(viewer->lastImage(), nullptr);
            viewer->sendInput({});
            viewer.reset();
            gone.set_value(true);
        });
        ASSERT_TRUE(await(gone));
    }
}

TEST_F(ViewerSocketsTest, aHostThatEndsItIsHeardInFullFlight) {
    connectAndAfter(5, [this] { hostQueue.post([this] { host->endConnection(); }); });
    EXPECT_EQ(await(ended), ConnectionError::Kind::endedByHost);
}

}  // namespace
}  // namespace velmora
