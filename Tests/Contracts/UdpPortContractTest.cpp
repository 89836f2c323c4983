#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Testing/FakeUdpPort.h"
#include "Tests/Contracts/ContractQueue.h"
#include "Tests/RawUdpSocket.h"
#include "VelmoraKit/Wire/StunMessage.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct FakeFixture {
    VirtualContractQueue queue;
    FakeUdpPort network;

    UdpPort& port() { return network; }
    std::uint16_t farPort() const { return 3479; }
    void answerWith(const Bytes& reply) {
        network.answers["127.0.0.1:3479"] = {.reply = [reply](const auto&) { return reply; }};
    }
    std::optional<Bytes> arrived() { return network.sent.at(network.sent.size() - 1).datagram.payload; }
    std::string nowhere() {
        network.answers["no-such-host.invalid:3479"] = {.reply = nullptr, .failure = "no such host"};
        return "no-such-host.invalid";
    }
};

struct LinuxFixture {
    ThreadContractQueue queue;
    RawUdpSocket far;
    std::unique_ptr<NetworkStack> stack = makeQuicTransportStack();
    std::optional<Bytes> reply;

    UdpPort& port() { return *stack; }
    std::uint16_t farPort() const { return far.port(); }
    void answerWith(const Bytes& bytes) { reply = bytes; }
    std::optional<Bytes> arrived() {
        const auto packet = far.receive();
        if (!packet) return std::nullopt;
        if (reply) far.send(*reply, packet->fromPort);
        return packet->bytes;
    }
    std::string nowhere() { return "no-such-host.invalid"; }
};

template <class Fixture>
class UdpPortContractTest : public testing::Test {
protected:
    void exchange(const std::string& host, const Bytes& payload, std::chrono::milliseconds wait) {
        const std::uint16_t local = RawUdpSocket().port();  // free again when this line has ended
        fixture.queue.run([&] {
            outcome.reset();
            fixture.port().exchange({local, host, fixture.farPort(), payload, wait}, fixture.queue.queue(),
                                    [this](UdpPort::Outcome told) {
                                        ++times;
                                        outcome.emplace(std::move(told));
                                        fixture.queue.signal();
                                    });
            EXPECT_EQ(times, 0) << "not from inside the call";
        });
    }
    bool told() {
        return fixture.queue.waitUntil([this] { return outcome.has_value(); });
    }

    std::optional<UdpPort::Outcome> outcome;
    int times = 0;
    Fixture fixture;
};
using Fixtures = testing::Types<FakeFixture, LinuxFixture>;
TYPED_TEST_SUITE(UdpPortContractTest, Fixtures);

TYPED_TEST(UdpPortContractTest, handsOverTheReply) {
    this->fixture.answerWith(bytesOf("VLACK"));
    this->exchange("127.0.0.1", bytesOf("VLREGtok"), 5s);
    EXPECT_EQ(this->fixture.arrived(), bytesOf("VLREGtok"));
    ASSERT_TRUE(this->told());
    ASSERT_TRUE(*this->outcome);
    EXPECT_EQ(**this->outcome, bytesOf("VLACK"));
    EXPECT_EQ(this->times, 1);
}

TYPED_TEST(UdpPortContractTest, handsOverTheAnswerOfAStunServer) {
    const stun::TransactionId transaction{1, 2, 3};
    const auto response = stun::encodeBindingResponse(transaction, {{192, 0, 2, 1}, 7});
    this->fixture.answerWith(response);
    this->exchange("127.0.0.1", stun::encodeBindingRequest(transaction), 5s);
    EXPECT_EQ(this->fixture.arrived(), stun::encodeBindingRequest(transaction));
    ASSERT_TRUE(this->told());
    ASSERT_TRUE(*this->outcome);
    EXPECT_EQ(**this->outcome, response);
}

TYPED_TEST(UdpPortContractTest, silenceAndAnUnwantedReplyAreNothing) {
    this->exchange("127.0.0.1", bytesOf("anyone?"), 20ms);
    ASSERT_TRUE(this->told());
    ASSERT_TRUE(*this->outcome);
    EXPECT_EQ(**this->outcome, std::nullopt);

    this->times = 0;
    this->exchange("127.0.0.1", bytesOf("VLPUNCH"), 0ms);
    ASSERT_TRUE(this->told());
    ASSERT_TRUE(*this->outcome);
    EXPECT_EQ(**this->outcome, std::nullopt);
}

TYPED_TEST(UdpPortContractTest, aPlaceThatDoesNotExistIsAFailure) {
    this->exchange(this->fixture.nowhere(), bytesOf("x"), 0ms);
    ASSERT_TRUE(this->told());
    ASSERT_FALSE(*this->outcome);
    EXPECT_NE(this->outcome->error().text, "");
}

}  // namespace
}  // namespace velmora
