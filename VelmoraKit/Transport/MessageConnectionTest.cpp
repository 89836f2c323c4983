#include "VelmoraKit/Transport/MessageConnection.h"

#include <gtest/gtest.h>

#include <numeric>
#include <utility>
#include <vector>

#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using Message = std::pair<MessageType, Bytes>;

Bytes frameOf(std::uint8_t type, const Bytes& payload) {
    const auto n = static_cast<std::uint32_t>(payload.size());
    Bytes frame{type, static_cast<std::uint8_t>(n >> 24), static_cast<std::uint8_t>(n >> 16),
                static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class MessageConnectionTest : public ::testing::Test {
protected:
    MessageConnectionTest() {
        connection->onMessage = [this](MessageType type, Bytes payload) {
            messages.emplace_back(type, std::move(payload));
        };
        connection->onStateChange = [this](TransportState state, const auto&) { states.push_back(state); };
    }
    void adopt() {
        connection->adoptStarted();
        time.settle();
    }
    void arrive(const Bytes& data) {
        stream->arrive(data);
        time.settle();
    }

    VirtualTime time;
    VirtualQueue queue{time};
    std::shared_ptr<ScriptedStream> stream = std::make_shared<ScriptedStream>(queue);
    std::shared_ptr<MessageConnection> connection = std::make_shared<MessageConnection>(stream, queue);
    std::vector<Message> messages;
    std::vector<TransportState> states;
};

TEST_F(MessageConnectionTest, deliversFramesInOrderHoweverTheBytesAreCut) {
    adopt();
    const Bytes wire = frameOf(6, {}) + frameOf(0, Bytes(10, 7)) + frameOf(5, {1, 2, 3}) + frameOf(20, {9}) +
                       frameOf(255, {}) + frameOf(19, Bytes(300, 4));
    const std::vector<Message> expected{
        {MessageType::bye, {}}, {MessageType::input, {1, 2, 3}}, {MessageType::denied, Bytes(300, 4)}};
    arrive(wire);
    EXPECT_EQ(messages, expected);
    messages.clear();
    for (const auto byte : wire) arrive({byte});
    EXPECT_EQ(messages, expected);
    EXPECT_EQ(stream->cancelCount, 0);
}

TEST_F(MessageConnectionTest, ofBulkThatIsNotReadOnlySomeAndTheNewestWaits) {
    const Bytes large(MessageConnection::maxPayload / 2, 1);
    for (int i = 0; i < 2; ++i) connection->sendBulk(MessageType::clipboard, large);
    ASSERT_EQ(stream->sent.size(), 2u);
    connection->sendBulk(MessageType::clipboard, {2});
    connection->sendBulk(MessageType::clipboard, {3});
    connection->send(MessageType::bye);
    ASSERT_EQ(stream->sent.size(), 3u);
    EXPECT_EQ(stream->sent[2], frameOf(6, {}));
    EXPECT_EQ(connection->pendingBulk() + 5, connection->pendingBytes());
    stream->completeSend();
    time.settle();
    ASSERT_EQ(stream->sent.size(), 4u);
    EXPECT_EQ(stream->sent[3], frameOf(16, {3}));
    for (int i = 0; i < 3; ++i) stream->completeSend();
    time.settle();
    EXPECT_EQ(connection->pendingBulk(), 0);
    EXPECT_EQ(connection->pendingBytes(), 0);
}

TEST_F(MessageConnectionTest, writesHeaderAndPayloadAsOneSendAndCountsItUntilItIsTakenOver) {
    connection->send(MessageType::clipboard, Bytes(100, 1));
    connection->send(MessageType::bye);
    EXPECT_EQ(connection->pendingBytes(), 110);
    ASSERT_EQ(stream->sent.size(), 2u);
    EXPECT_EQ(stream->sent[0], (Bytes{16, 0, 0, 0, 100} + Bytes(100, 1)));
    EXPECT_EQ(stream->sent[1], (Bytes{6, 0, 0, 0, 0}));
    stream->completeSend();
    time.settle();
    EXPECT_EQ(connection->pendingBytes(), 5);
    stream->completeSend(TransportError{104, "reset"});
    time.settle();
    EXPECT_EQ(connection->pendingBytes(), 0);
}

TEST_F(MessageConnectionTest, readsTheLongestPayloadAndCancelsAboveIt) {
    adopt();
    arrive({1, 0x04, 0, 0, 0});
    EXPECT_EQ(stream->requestedCount(), 64u * 1024 * 1024);
    EXPECT_EQ(stream->cancelCount, 0);

    auto other = std::make_shared<ScriptedStream>(queue);
    const auto second = std::make_shared<MessageConnection>(other, queue);
    second->adoptStarted();
    other->arrive(Bytes{1, 0x04, 0, 0, 1});
    time.settle();
    EXPECT_EQ(other->cancelCount, 1);
    EXPECT_EQ(other->requestedCount(), 0u);
}

TEST_F(MessageConnectionTest, cancelsWhenAStreamEndsOrFailsInsideAFrame) {
    for (const Bytes& cut : {Bytes{1, 0, 0}, Bytes{}, Bytes{1, 0, 0, 0, 9, 5}}) {
        auto ending = std::make_shared<ScriptedStream>(queue);
        const auto reader = std::make_shared<MessageConnection>(ending, queue);
        reader->onMessage = [](MessageType, const Bytes&) { ADD_FAILURE() << "a message out of a part"; };
        reader->adoptStarted();
        ending->arrive(cut);
        ending->arriveEnd();
        time.settle();
        EXPECT_EQ(ending->cancelCount, 1) << "after " << cut.size() << " bytes";
    }
    adopt();
    stream->answerReadWith({.data = {}, .error = TransportError{104, "reset"}});
    time.settle();
    EXPECT_EQ(stream->cancelCount, 1);
}

TEST_F(MessageConnectionTest, shortDataWithoutReasonEndsTheLoopInAHeaderAndTheStreamInABody) {
    adopt();
    stream->answerReadWith({.data = {1, 2}});
    time.settle();
    EXPECT_EQ(stream->cancelCount, 0);
    EXPECT_EQ(stream->requestedCount(), 0u);

    auto other = std::make_shared<ScriptedStream>(queue);
    const auto second = std::make_shared<MessageConnection>(other, queue);
    second->adoptStarted();
    other->arrive(Bytes{1, 0, 0, 0, 4});
    time.settle();
    other->answerReadWith({.data = {1, 2}});
    time.settle();
    EXPECT_EQ(other->cancelCount, 1);
}

TEST_F(MessageConnectionTest, throwsLongFramesOfUnauthenticatedPeersAwayUnheld) {
    connection->setUnauthenticatedLimit(MessageConnection::unauthenticatedPayload);
    adopt();
    const Bytes fits(64 * 1024, 1), tooLong(64 * 1024 + 1, 2);
    arrive(frameOf(1, fits) + frameOf(1, tooLong) + frameOf(99, tooLong) + frameOf(6, {}));
    EXPECT_EQ(messages, (std::vector<Message>{
                            {MessageType::hello, fits}, {MessageType::hello, {}}, {MessageType::bye, {}}}));
    arrive({1, 0x03, 0, 0, 0});
    EXPECT_LE(stream->requestedCount(), 64u * 1024);
    arrive(Bytes(0x03000000));
    EXPECT_EQ(messages.size(), 4u);
    connection->setUnauthenticatedLimit(std::nullopt);
    // The header that is already asked for counts too: the limit is looked at when a length is known.
    arrive(frameOf(16, tooLong));
    EXPECT_EQ(messages.back(), (Message{MessageType::clipboard, tooLong}));
    arrive({1, 0x7f, 0, 0, 0});
    EXPECT_EQ(stream->cancelCount, 1);
}

TEST_F(MessageConnectionTest, aHandlerMayReplaceItselfAndTheNextMessageGoesToTheNewOne) {
    std::vector<Message> later;
    // The captured bytes make the function too large to be kept in place: replacing it frees them.
    connection->onMessage = [this, &later, padding = Bytes(100)](MessageType, const Bytes&) {
        connection->onMessage = [&later](MessageType type, Bytes payload) {
            later.emplace_back(type, std::move(payload));
        };
        messages.emplace_back(MessageType::hello, padding);
    };
    adopt();
    arrive(frameOf(1, {1}) + frameOf(5, {2}));
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(later, (std::vector<Message>{{MessageType::input, {2}}}));
}

TEST_F(MessageConnectionTest, aHandlerThatDropsTheConnectionEndsTheLoop) {
    std::weak_ptr<MessageConnection> watch = connection;
    connection->onMessage = [this](MessageType, const Bytes&) {
        messages.emplace_back();
        connection.reset();
    };
    adopt();
    arrive(frameOf(6, {}) + frameOf(6, {}));
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_TRUE(watch.expired());
}

TEST_F(MessageConnectionTest, reportsStatesAndOneEndAlsoOneThatCameBeforeItWasAdopted) {
    connection->start();
    time.settle();
    EXPECT_EQ(stream->startCount, 1);
    stream->moveTo(TransportState::ready);
    stream->moveTo(TransportState::failed, TransportError{0, "gone"});
    stream->moveTo(TransportState::cancelled);
    EXPECT_EQ(states, (std::vector{TransportState::ready, TransportState::failed}));

    auto other = std::make_shared<ScriptedStream>(queue);
    const auto second = std::make_shared<MessageConnection>(other, queue);
    std::vector<TransportState> seen;
    second->onStateChange = [&seen](TransportState state, const auto&) { seen.push_back(state); };
    other->moveTo(TransportState::cancelled);
    second->adoptStarted();
    time.settle();
    EXPECT_EQ(other->startCount, 0);
    EXPECT_EQ(seen, std::vector{TransportState::cancelled});
}

}  // namespace
}  // namespace velmora
