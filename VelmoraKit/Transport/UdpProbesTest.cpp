#include "VelmoraKit/Transport/UdpProbes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/FakeUdpPort.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr stun::TransactionId transaction{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

Bytes successFor(const UdpPort::Datagram& request) {
    return stun::encodeBindingResponse(*stun::decodeBindingRequest(request.payload),
                                       {{198, 51, 100, 7}, 40001});
}

class UdpProbesTest : public testing::Test {
protected:
    void ask() {
        probes->mappedAddress(50123, [this](const std::optional<std::string>& mapped) {
            answers.push_back(mapped.value_or("nothing"));
        });
    }

    VirtualTime time;
    VirtualQueue main{time};
    FakeUdpPort network;
    std::unique_ptr<UdpProbes> probes = std::make_unique<UdpProbes>(
        network, "stun.example", main, UdpProbes::Parameters{.newTransaction = [] { return transaction; }});
    std::vector<std::string> answers;
    DiaryReader diary;
};

TEST_F(UdpProbesTest, learnsThePublicAddressOfThePortItAsksFrom) {
    network.answers["stun.example:3478"] = {.reply = successFor};
    ask();
    EXPECT_THAT(answers, IsEmpty());
    time.advanceBy(20ms);
    EXPECT_THAT(answers, ElementsAre("198.51.100.7:40001"));
    ASSERT_EQ(network.sent.size(), 1u);
    EXPECT_EQ(network.sent[0].datagram.localPort, 50123);
    EXPECT_EQ(network.sent[0].datagram.payload, stun::encodeBindingRequest(transaction));
    EXPECT_EQ(network.sent[0].datagram.waitForReply, 1s);
    time.advanceBy(10s);
    EXPECT_EQ(answers.size(), 1u);
}

TEST_F(UdpProbesTest, aUselessReplyIsNothingAtOnce) {
    network.answers["stun.example:3478"] = {.reply = [](const auto&) {
        return stun::encodeBindingResponse({}, {{198, 51, 100, 7}, 40001});  // another transaction
    }};
    ask();
    time.advanceBy(20ms);
    EXPECT_THAT(answers, ElementsAre("nothing"));
    time.advanceBy(10s);
    EXPECT_EQ(answers.size(), 1u);
}

TEST_F(UdpProbesTest, silenceAndFailureAreNothingAtTheLimit) {
    ask();
    time.advanceBy(1199ms);
    EXPECT_THAT(answers, IsEmpty());
    time.advanceBy(1ms);
    EXPECT_THAT(answers, ElementsAre("nothing"));

    network.answers["stun.example:3478"] = {.reply = nullptr, .failure = "no route"};
    ask();
    time.advanceBy(1199ms);
    EXPECT_EQ(answers.size(), 1u);
    time.advanceBy(1ms);
    EXPECT_EQ(answers.size(), 2u);
    EXPECT_THAT(diary.viewerLines(),
                ElementsAre("⚠︎ UDP from port 50123 to stun.example:3478 failed: no route"));
}

TEST_F(UdpProbesTest, questionsDoNotMixUpAndMayBeAskedFromAnAnswer) {
    network.answers["stun.example:3478"] = {.delay = 100ms, .reply = successFor};
    probes->mappedAddress(50001, [this](const auto&) { ask(); });
    time.advanceBy(50ms);
    ask();
    time.advanceBy(100ms);
    EXPECT_EQ(answers.size(), 1u);
    time.advanceBy(50ms);
    EXPECT_EQ(answers.size(), 2u);
}

TEST_F(UdpProbesTest, handsOverTheReplyToADatagram) {
    network.answers["192.0.2.9:3479"] = {.reply = [](const auto&) { return bytesOf("VLACK"); }};
    std::vector<Bytes> replies;
    const auto keep = [&](const Bytes& reply) { replies.push_back(reply); };
    probes->sendFromPort({47272, "192.0.2.9", 3479, bytesOf("VLREGt"), 2000ms}, keep);
    probes->sendFromPort({47272, "192.0.2.9", 3479, bytesOf("VLREGt"), 0ms}, keep);
    probes->sendFromPort({47272, "192.0.2.8", 3479, bytesOf("VLPUNCH"), 2000ms}, keep);
    time.advanceBy(10s);
    EXPECT_THAT(replies, ElementsAre(bytesOf("VLACK")));
    EXPECT_EQ(network.sent.size(), 3u);
}

TEST_F(UdpProbesTest, isSilentOnceItIsGone) {
    network.answers["stun.example:3478"] = {.reply = successFor};
    ask();
    probes.reset();
    time.advanceBy(10s);
    EXPECT_THAT(answers, IsEmpty());
}

TEST_F(UdpProbesTest, transactionsAreNotRepeated) {
    EXPECT_NE(UdpProbes::randomTransaction(), UdpProbes::randomTransaction());
}

}  // namespace
}  // namespace velmora
