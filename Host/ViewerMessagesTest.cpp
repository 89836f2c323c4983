#include "Host/ViewerMessages.h"

#include <gtest/gtest.h>

#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {
namespace {

/// What is posted waits for the test.
class SlowQueue final : public Queue {
public:
    void post(Block block) override { blocks.push_back(std::move(block)); }
    TimerToken after(HostClock::duration, Block) override { return {}; }
    void runSync(Block block) override { block(); }
    HostClock::time_point now() const override { return {}; }
    bool isCurrent() const override { return true; }
    std::string_view name() const override { return "slow"; }

    void catchUp() {
        for (Block& block : std::exchange(blocks, {})) block();
    }
    std::vector<Block> blocks;
};

/// One viewer that nobody else answers.
class ViewerMessagesTest : public testing::Test {
protected:
    void say(MessageType type, const Bytes& payload) {
        queue.post([&] { messages.handle(type, payload); });
        time.settle();
    }
    void type(const std::string& text) {
        say(MessageType::input, InputEvent{.kind = InputEvent::Kind::key, .characters = text}.encode());
    }

    VirtualTime time;
    DiaryReader diary;
    VirtualQueue queue{time};
    SlowQueue slow;
    std::shared_ptr<ScriptedStream> stream = std::make_shared<ScriptedStream>(queue);
    std::shared_ptr<MessageConnection> connection = std::make_shared<MessageConnection>(stream, queue);
    std::shared_ptr<InputSeat> seat = std::make_shared<InputSeat>();
    ViewerMessages messages{{.connection = connection,
                             .sender = std::make_shared<FrameSender>(connection, nullptr, queue),
                             .input = QueueRef<InputSeat>(slow, seat),
                             .cpuPercent = [] { return 0.0; }},
                            ServerSettings{},
                            {.mostWaiting = 10'000, .bookkeeping = 100}};
};

TEST_F(ViewerMessagesTest, whatTheQueuesDoNotGetDoneEndsTheConnection) {
    for (int i = 0; i < 1000; ++i) type("a");
    EXPECT_EQ(stream->cancelCount, 1);
    EXPECT_LT(slow.blocks.size(), 100u);
    EXPECT_EQ(diary.hostLines().size(), 1u);
}

TEST_F(ViewerMessagesTest, longTextsCountByTheirLength) {
    for (int i = 0; i < 4; ++i) type(std::string(4000, 'a'));
    EXPECT_EQ(stream->cancelCount, 1);
    EXPECT_EQ(slow.blocks.size(), 3u);
}

TEST_F(ViewerMessagesTest, aViewerMaySayAnyAmountIfItIsDealtWith) {
    for (int i = 0; i < 1000; ++i) {
        type("a");
        slow.catchUp();
    }
    EXPECT_EQ(stream->cancelCount, 0);
}

TEST_F(ViewerMessagesTest, aViewerThatDoesNotReadGetsNoMoreAnswers) {
    say(MessageType::ping, Ping{1}.encode());
    ASSERT_EQ(stream->sent.size(), 1u);
    connection->send(MessageType::clipboard, Bytes(SessionLog::mostWaitingBytes));
    say(MessageType::ping, Ping{2}.encode());
    say(MessageType::requestKeyframe, {});
    EXPECT_EQ(stream->sent.size(), 2u) << "only what was sent before it stopped";
    for (int i = 0; i < 2; ++i) stream->completeSend();
    time.settle();
    say(MessageType::ping, Ping{3}.encode());
    EXPECT_EQ(stream->sent.size(), 3u);
}

TEST_F(ViewerMessagesTest, aFloodOfRequestsLeavesRoomInTheLog) {
    for (int i = 0; i < 5000; ++i) say(MessageType::requestKeyframe, {});
    EXPECT_EQ(diary.hostLines().size(), 100u);
    EXPECT_EQ(stream->sent.size(), 100u);
    time.advanceBy(std::chrono::seconds(1));
    say(MessageType::requestKeyframe, {});
    ASSERT_EQ(diary.hostLines().size(), 102u);
    EXPECT_EQ(diary.hostLines()[100], "(4900 lines left out)");
    EXPECT_EQ(diary.hostLines()[101], "Viewer asked for a keyframe");
}

}  // namespace
}  // namespace velmora
