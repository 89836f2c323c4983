#include "Platform/Linux/Network/UdpSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Tests/RawUdpSocket.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

Bytes packet(std::size_t size, std::uint8_t fill) {
    return Bytes(size, fill);
}

TEST(SocketAddressTest, readsAndShowsBothFamilies) {
    const auto four = SocketAddress::parse("10.1.2.3", 47272);
    ASSERT_TRUE(four);
    EXPECT_EQ(four->text(), "10.1.2.3:47272");
    EXPECT_EQ(*four, *SocketAddress::parse("::ffff:10.1.2.3", 47272));
    EXPECT_EQ(SocketAddress::parse("[2001:db8::5]", 3478)->text(), "[2001:db8::5]:3478");
    EXPECT_EQ(SocketAddress::parse("fe80::1%lo", 5)->text(), "[fe80::1%lo]:5");
    EXPECT_NE(*SocketAddress::parse("fe80::1%lo", 5), *SocketAddress::parse("fe80::1", 5));
    for (const char* name : {"localhost", "", "10.1.2", "10.1.2.3.4", "::g", "%lo", "[]"})
        EXPECT_FALSE(SocketAddress::parse(name, 1)) << name;
}

class UdpSocketFamiliesTest : public ::testing::TestWithParam<UdpSocket::Families> {};
INSTANTIATE_TEST_SUITE_P(Families, UdpSocketFamiliesTest,
                         ::testing::Values(UdpSocket::Families::both, UdpSocket::Families::ipv4));

/// Runs of equal packets travel in one call; what differs in size or receiver must not be glued to them.
TEST_P(UdpSocketFamiliesTest, everyPacketOfABatchArrivesWholeAndAlone) {
    const auto socket = UdpSocket::bindTo(0, GetParam()).value();
    RawUdpSocket one, other;
    const auto toOne = *SocketAddress::parse("127.0.0.1", one.port());
    const auto toOther = *SocketAddress::parse("127.0.0.1", other.port());
    PacketBatch batch;
    std::vector<Bytes> expected;
    std::uint8_t number = 0;
    for (const std::size_t size : {1200u, 1200u, 1200u, 700u, 1200u, 1400u, 1u, 1u, 1u, 2u}) {
        expected.push_back(packet(size, ++number));
        batch.add(ByteView(expected.back()), toOne);
    }
    for (int i = 0; i < 50; ++i) {  // more would not fit a plain socket's buffer
        expected.push_back(packet(1300, static_cast<std::uint8_t>(i)));
        batch.add(ByteView(expected.back()), toOne);
    }
    batch.add(ByteView(packet(1300, 200)), toOther);
    socket->send(batch);
    EXPECT_TRUE(batch.empty());
    for (const Bytes& want : expected) {
        const auto got = one.receive();
        ASSERT_TRUE(got);
        ASSERT_EQ(got->bytes, want);
        EXPECT_EQ(got->fromPort, socket->port());
    }
    EXPECT_EQ(other.receive()->bytes, packet(1300, 200));
}

TEST_P(UdpSocketFamiliesTest, aRunReceivedAtOnceIsTakenApart) {
    const auto from = UdpSocket::bindTo(0, GetParam()).value();
    const auto to = UdpSocket::bindTo(0, GetParam()).value();
    PacketBatch batch;
    for (int i = 0; i < 30; ++i)
        batch.add(ByteView(packet(i == 29 ? 50 : 1000, static_cast<std::uint8_t>(i))),
                  *SocketAddress::parse("127.0.0.1", to->port()));
    from->send(batch);
    std::vector<Bytes> got;
    UdpSocket::Arrival arrival = [&](ByteView bytes, const SocketAddress& sender,
                                     const SocketAddress& receiver) {
        got.emplace_back(bytes.begin(), bytes.end());
        EXPECT_EQ(sender, *SocketAddress::parse("127.0.0.1", from->port()));
        EXPECT_EQ(receiver.hostText(), "127.0.0.1");
    };
    pollfd readable{to->descriptor(), POLLIN, 0};
    while (got.size() < 30 && poll(&readable, 1, 5000) > 0) to->receive(arrival);
    ASSERT_EQ(got.size(), 30u);
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ(got[static_cast<std::size_t>(i)],
                  packet(i == 29 ? 50 : 1000, static_cast<std::uint8_t>(i)));
}

TEST(UdpSocketTest, whatCannotLeaveDoesNotHoldUpTheRest) {
    const auto socket = UdpSocket::bindTo(0).value();
    RawUdpSocket receiver;
    const auto to = *SocketAddress::parse("127.0.0.1", receiver.port());
    PacketBatch batch;
    batch.add(ByteView(packet(100, 1)), to);
    batch.add(ByteView(packet(65'530, 2)), to);  // more than a UDP packet can hold
    batch.add(ByteView(packet(100, 3)), *SocketAddress::parse("255.255.255.255", 9));
    batch.add(ByteView(packet(100, 4)), to);
    socket->send(batch);
    EXPECT_TRUE(batch.empty());
    EXPECT_EQ(receiver.receive()->bytes, packet(100, 1));
    EXPECT_EQ(receiver.receive()->bytes, packet(100, 4));
    const auto error = socket->takeLastError();
    EXPECT_THAT(error.code, ::testing::AnyOf(EACCES, ENETUNREACH));  // a broadcast that was not asked for
    EXPECT_EQ(error.to.text(), "255.255.255.255:9");
    EXPECT_EQ(socket->takeLastError().code, 0);
}

TEST_P(UdpSocketFamiliesTest, anAnswerLeavesFromTheAddressThatWasAsked) {
    const auto socket = UdpSocket::bindTo(0, GetParam()).value();
    RawUdpSocket receiver;
    const auto to = *SocketAddress::parse("127.0.0.1", receiver.port());
    PacketBatch batch;
    for (const char* source : {"127.0.0.9", "203.0.113.7"}) {  // the second is none of ours
        batch.leaveFrom(*SocketAddress::parse(source, 0));
        batch.add(ByteView(packet(10, 1)), to);
        batch.add(ByteView(packet(10, 2)), to);
    }
    socket->send(batch);
    std::vector<std::string> sources;
    for (int i = 0; i < 4; ++i) sources.push_back(receiver.receive().value().fromHost);
    EXPECT_THAT(sources, ::testing::ElementsAre("127.0.0.9", "127.0.0.9", "127.0.0.1", "127.0.0.1"));
}

TEST(UdpSocketTest, aPortIsBoundOnceForBothFamilies) {
    const auto socket = UdpSocket::bindTo(0).value();
    EXPECT_EQ(RawUdpSocket(socket->port(), INADDR_ANY).bindError(), EADDRINUSE);
    const auto again = UdpSocket::bindTo(socket->port());
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().code, EADDRINUSE);
}

}  // namespace
}  // namespace velmora
