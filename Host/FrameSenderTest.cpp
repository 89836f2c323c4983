#include "Host/FrameSender.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Testing/ScriptedFlow.h"
#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Media/VideoPackets.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class FrameSenderTest : public testing::Test {
protected:
    FrameSenderTest() { flow->path.datagramsAcked = 1'000'000; }  // nothing is under way
    /// Number and indices of the packets in the newest hand-over.
    std::vector<int> newestIndices() const {
        std::vector<int> indices;
        for (const auto& packet : flow->sent.back().datagrams) {
            indices.push_back(VideoPackets::headerOf(*packet)->index);
        }
        return indices;
    }

    VirtualTime time;
    VirtualQueue queue{time};
    std::shared_ptr<ScriptedStream> stream = std::make_shared<ScriptedStream>(queue);
    std::shared_ptr<MessageConnection> connection = std::make_shared<MessageConnection>(stream, queue);
    std::shared_ptr<ScriptedFlow> flow = std::make_shared<ScriptedFlow>();
    FrameSender sender{connection, flow, queue};
};

TEST_F(FrameSenderTest, aFrameLeavesAsOneHandOverTaggedWithItsNumberFromOne) {
    EXPECT_EQ(sender.send(Bytes(3000, 7)), 1u);
    EXPECT_EQ(sender.send(Bytes(10, 7)), 2u);
    ASSERT_EQ(flow->sent.size(), 2u);
    EXPECT_EQ(flow->sent[0].datagrams.size(), 3u);
    EXPECT_EQ(flow->sent[0].tag, 1u);
    EXPECT_EQ(flow->sent[1].tag, 2u);
    EXPECT_TRUE(stream->sent.empty());
    const auto statistics = sender.takeStatistics();
    EXPECT_EQ(statistics.frames, 2u);
    EXPECT_EQ(statistics.bytes, 3010u);
    EXPECT_EQ(sender.takeStatistics().frames, 0u);
}

TEST_F(FrameSenderTest, packetsFillWhatThePathCarriesNow) {
    const auto sizeOfFirst = [&](std::optional<std::size_t> usable) {
        flow->usableSize = usable;
        sender.send(Bytes(5000));
        return flow->sent.back().datagrams.front()->size();
    };
    EXPECT_EQ(sizeOfFirst(1400), 1400u);
    EXPECT_EQ(sizeOfFirst(std::nullopt), 1158u);
    EXPECT_EQ(sizeOfFirst(0), 1158u);
    EXPECT_EQ(sizeOfFirst(3), 208u) << "never less than a sensible packet";
}

TEST_F(FrameSenderTest, aNackGetsWhatItNamesInItsOrderOrEverything) {
    sender.send(Bytes(5000, 1));
    const auto original = flow->sent[0].datagrams;
    EXPECT_TRUE(sender.resend({.frame = 1, .indices = {3, 0, 3, 5, 65535}}));
    EXPECT_THAT(newestIndices(), ElementsAre(3, 0, 3));
    EXPECT_EQ(flow->sent.back().datagrams[1], original[0]) << "the very bytes that were sent";
    EXPECT_EQ(flow->sent.back().tag, 1u);
    EXPECT_TRUE(sender.resend({.frame = 1}));
    EXPECT_EQ(flow->sent.back().datagrams, original);
    const auto sent = flow->sent.size();
    EXPECT_FALSE(sender.resend({.frame = 1, .indices = {5, 6}}));
    EXPECT_FALSE(sender.resend({.frame = 2}));
    EXPECT_EQ(flow->sent.size(), sent);
}

TEST_F(FrameSenderTest, aNackGetsNoMorePacketsThanTheFrameHas) {
    sender.send(Bytes(5000, 1));
    EXPECT_TRUE(sender.resend({.frame = 1, .indices = std::vector<int>(65535, 2)}));
    EXPECT_EQ(flow->sent.back().datagrams.size(), flow->sent[0].datagrams.size());
}

TEST_F(FrameSenderTest, theHistoryHoldsTheLast120Frames) {
    for (int i = 0; i < 121; ++i) sender.send(Bytes(10));
    EXPECT_FALSE(sender.resend({.frame = 1}));
    EXPECT_TRUE(sender.resend({.frame = 2}));
}

TEST_F(FrameSenderTest, nothingIsRepairedBehindMegabytesThatWait) {
    sender.send(Bytes(10));
    flow->pending = 3'000'001;
    EXPECT_FALSE(sender.resend({.frame = 1}));
}

TEST_F(FrameSenderTest, aCopyIsNotTakenForTheOriginal) {
    sender.send(Bytes(3000));
    sender.sendCopy(1);
    sender.sendCopy(2);
    ASSERT_EQ(flow->sent.size(), 2u);
    EXPECT_EQ(flow->sent[1].datagrams, flow->sent[0].datagrams);
    EXPECT_EQ(flow->sent[1].tag, 0u);
    EXPECT_EQ(sender.takeStatistics().frames, 1u);
}

TEST_F(FrameSenderTest, whatIsStillUnderWayIsNotSentAgain) {
    flow->path = {.datagramsAcked = 1, .datagramsLost = 1};
    sender.send(Bytes(5000));
    EXPECT_TRUE(sender.resend({.frame = 1}));
    EXPECT_THAT(newestIndices(), ElementsAre(0, 1));
    EXPECT_FALSE(sender.resend({.frame = 1, .indices = {0, 1, 4}})) << "nor is the repair lost yet";
    flow->path.datagramsAcked = 5;
    flow->path.datagramsDropped = 1;  // seven have ended: the five, and both repairs
    EXPECT_TRUE(sender.resend({.frame = 1, .indices = {1, 4}}));
    EXPECT_THAT(newestIndices(), ElementsAre(1, 4));
    time.advanceBy(501ms);
    EXPECT_TRUE(sender.resend({.frame = 1, .indices = {1}})) << "a path that tells nothing";
}

TEST_F(FrameSenderTest, withoutAFlowPicturesAreMessages) {
    FrameSender onStream{connection, nullptr, queue};
    onStream.send(Bytes(100, 9));
    ASSERT_EQ(stream->sent.size(), 1u);
    EXPECT_EQ(stream->sent[0].size(), 105u);
    EXPECT_EQ(stream->sent[0][0], byteOf(MessageType::videoFrame));
    EXPECT_FALSE(onStream.resend({.frame = 1}));
    EXPECT_TRUE(onStream.load().videoOnStream);
    EXPECT_EQ(onStream.load().streamBytes, 105u);
    connection->sendBulk(MessageType::clipboard, Bytes(1000));
    EXPECT_EQ(sender.load().streamBytes, 105u) << "datagrams need not wait for a clipboard";
    EXPECT_TRUE(sender.sharesPath());
    EXPECT_EQ(onStream.load().streamBytes, 1110u) << "but what goes behind it must";
    EXPECT_EQ(onStream.takeStatistics().bytes, 100u);
}

}  // namespace
}  // namespace velmora
