#include "Platform/Linux/Network/StreamChannel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Linux/Network/NetworkLoop.h"
#include "Platform/Linux/Network/QuicSession.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using State = TransportState;
constexpr std::uint64_t firstWindow = 64 * 1024;

/// The test plays the network thread; the owner lives on a virtual queue. Everything told is written down in
/// order.
class StreamChannelTest : public ::testing::Test {
protected:
    StreamChannelTest() {
        loop->finish([] { return true; }, {},
                     [] {});  // the real one would take the work before the test does
        stream->onState = [this](State state, const auto&) {
            if (state == State::ready) told.push_back("ready");
            if (state == State::cancelled) told.push_back("cancelled");
            if (state == State::failed) told.push_back("failed");
        };
        stream->start(queue);
        channel->becameReady("192.0.2.1:5");
        settle();
        told.clear();
    }
    ~StreamChannelTest() override { stream.reset(); }

    void settle() { time.settle(); }
    void receive(std::size_t count) {
        stream->receiveExactly(count, [this](Stream::Received got) {
            told.push_back(std::to_string(got.data.size()) + (got.isComplete ? " end" : "") +
                           (got.error ? " error" : ""));
        });
        settle();
    }
    void arrive(std::size_t count, bool isLast = false) {
        channel->received(Bytes(count), isLast);
        settle();
    }

    VirtualTime time;
    VirtualQueue queue{time};
    std::shared_ptr<NetworkLoop> loop = std::make_shared<NetworkLoop>("test");
    std::shared_ptr<StreamChannel> channel = std::make_shared<StreamChannel>(
        std::make_shared<QuicSession>(loop, QuicConnection::Parameters{}), firstWindow);
    std::shared_ptr<QuicStream> stream = std::make_shared<QuicStream>(channel);
    std::vector<std::string> told;
};

using Told = std::vector<std::string>;

TEST_F(StreamChannelTest, whatArrivedIsReadBeforeTheEndIsTold) {
    receive(5);
    arrive(5);
    arrive(7);
    channel->ended(State::cancelled, std::nullopt);
    settle();
    EXPECT_EQ(told, Told{"5"}) << "a reader would tear down before reading the farewell";
    receive(4);
    EXPECT_EQ(told, (Told{"5", "4"}));
    receive(4);
    EXPECT_EQ(told, (Told{"5", "4", "3 end", "cancelled"}));
    receive(1);
    EXPECT_EQ(told.back(), "0 end");
}

TEST_F(StreamChannelTest, aFailureAnswersTheReaderThenShows) {
    receive(5);
    arrive(3);
    channel->ended(State::failed, TransportError{0, "gone"});
    settle();
    EXPECT_EQ(told, (Told{"3 error", "failed"}));
    bool refused = false;
    stream->send({1}, [&](const auto& error) { refused = error.has_value(); });
    EXPECT_FALSE(refused) << "answered from inside the call";
    settle();
    EXPECT_TRUE(refused);
}

TEST_F(StreamChannelTest, anOwnerWhoNeverReadsHearsTheEndAtOnce) {
    arrive(100);
    channel->ended(State::cancelled, std::nullopt);
    settle();
    EXPECT_EQ(told, Told{"cancelled"});
}

TEST_F(StreamChannelTest, thePeerMaySendWhatIsAskedForAndOneSmallWindow) {
    EXPECT_EQ(channel->takeWork().grant, 0u) << "nothing beyond the first window while nobody reads";
    receive(1'000'000);
    EXPECT_EQ(channel->takeWork().grant, 1'000'000u);
    arrive(1'000'000 + firstWindow);
    // Half a window at least, and the window has grown with what was read.
    const auto granted = channel->takeWork().grant;
    EXPECT_GT(granted, firstWindow / 2);
    EXPECT_LE(granted, 1u << 20);
    for (int i = 0; i < 20; ++i) receive(10);
    EXPECT_EQ(channel->takeWork().grant, 0u) << "a grant for every few bytes";
}

}  // namespace
}  // namespace velmora
