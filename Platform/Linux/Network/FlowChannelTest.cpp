#include "Platform/Linux/Network/FlowChannel.h"

#include <gtest/gtest.h>

#include <vector>

#include "Platform/Linux/Network/NetworkLoop.h"
#include "Platform/Linux/Network/QuicSession.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

/// The test plays the network thread; the owner lives on a virtual queue.
class FlowChannelTest : public ::testing::Test {
protected:
    FlowChannelTest() {
        loop->finish([] { return true; }, {}, [] {});
        flow->onDatagram = [this](const Bytes& datagram) { told.push_back(datagram.size()); };
    }

    void arrive(std::size_t count, std::size_t bytesEach) {
        std::vector<Bytes> datagrams(count, Bytes(bytesEach));
        channel->received(datagrams);
    }

    VirtualTime time;
    VirtualQueue queue{time};
    std::shared_ptr<NetworkLoop> loop = std::make_shared<NetworkLoop>("test");
    const FlowChannel::Parameters parameters{.unclaimedBytes = 10'000, .receiveQueueBytes = 20'000};
    std::shared_ptr<FlowChannel> channel = std::make_shared<FlowChannel>(
        std::make_shared<QuicSession>(loop, QuicConnection::Parameters{}), parameters);
    std::shared_ptr<QuicDatagramFlow> flow = std::make_shared<QuicDatagramFlow>(channel);
    std::vector<std::size_t> told;
};

TEST_F(FlowChannelTest, keepsTheNewestDatagramsWhileNobodyTakesThem) {
    arrive(1, 500);
    arrive(20, 1000);
    flow->start(queue);
    time.settle();
    EXPECT_EQ(told, std::vector<std::size_t>(9, 1000));
}

TEST_F(FlowChannelTest, datagramsThatStillArriveForAFlowThatWasDroppedDoNoHarm) {
    flow->start(queue);
    arrive(15, 1000);  // more than is kept for a flow that nobody has claimed
    flow.reset();
    arrive(1, 1000);
    time.settle();
    EXPECT_TRUE(told.empty());
}

TEST_F(FlowChannelTest, emptyDatagramsTakeTheirShareOfTheRoom) {
    arrive(100'000, 0);
    flow->start(queue);
    time.settle();
    EXPECT_LT(told.size(), 1000u);
}

}  // namespace
}  // namespace velmora
