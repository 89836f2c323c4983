#include "Rendezvous/UdpService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/udp.h>

#include <random>
#include <thread>

#include "Tests/RawUdpSocket.h"
#include "VelmoraKit/Wire/StunMessage.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr auto limit = 20s;  // for a machine that does much else

/// A side that speaks IPv6.
class RawUdp6Socket {
public:
    RawUdp6Socket() : descriptor_(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        timeval patience{.tv_sec = limit.count()};
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_in6 own{.sin6_family = AF_INET6, .sin6_addr = in6addr_loopback};
        usable_ = bind(descriptor_, reinterpret_cast<sockaddr*>(&own), sizeof own) == 0;
    }
    ~RawUdp6Socket() { ::close(descriptor_); }
    RawUdp6Socket(const RawUdp6Socket&) = delete;
    RawUdp6Socket& operator=(const RawUdp6Socket&) = delete;

    bool isUsable() const { return usable_; }
    void send(std::string_view bytes, std::uint16_t port) {
        sockaddr_in6 to{.sin6_family = AF_INET6, .sin6_port = htons(port), .sin6_addr = in6addr_loopback};
        sendto(descriptor_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    std::string receive() {
        std::string bytes(2'000, '\0');
        const auto size = recv(descriptor_, bytes.data(), bytes.size(), 0);
        bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return bytes;
    }

private:
    const int descriptor_;
    bool usable_ = false;
};

class UdpServiceTest : public testing::Test {
protected:
    void SetUp() override {
        std::mt19937 random{std::random_device{}()};
        for (int attempt = 0; attempt < 50 && !service; ++attempt) {  // others use ports, too
            stunPort = std::uniform_int_distribution<std::uint16_t>(20'000, 30'000)(random);
            std::vector<std::uint16_t> ports;
            for (std::uint16_t i = 1; i <= 3; ++i) ports.push_back(static_cast<std::uint16_t>(stunPort + i));
            table = std::make_unique<RelayTable>(RelayTable::Parameters{.ports = ports});
            auto opened = UdpService::open({.stunPort = stunPort, .threads = 2}, *table, metrics);
            if (opened) service = std::move(*opened);
        }
        ASSERT_TRUE(service);
    }
    RelayTable::Ticket issue() { return table->issue("123456789", HostClock::now()).value(); }

    template <class Socket>
    static std::string textFrom(Socket& socket) {
        const auto arrived = socket.receive(limit);
        return arrived ? textOf(arrived->bytes) : "nothing";
    }
    std::uint64_t dropped(const std::string& reason) {
        return metrics.counter("velmora_relay_dropped_total", "", "reason=\"" + reason + "\"").value();
    }
    template <class Condition>
    static bool comesTrue(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }

    Metrics metrics;
    std::uint16_t stunPort = 0;
    std::unique_ptr<RelayTable> table;
    std::unique_ptr<UdpService> service;
    RawUdpSocket host, viewer;
};

TEST_F(UdpServiceTest, twoMeetThroughTheRelay) {
    const auto ticket = issue();
    for (RawUdpSocket* side : {&host, &viewer}) {
        side->send(bytesOf("VLREG" + ticket.token), ticket.port);
        EXPECT_EQ(textFrom(*side), "VLACK");
    }
    viewer.send(bytesOf("hello"), ticket.port);
    EXPECT_EQ(textFrom(host), "hello");

    // A run in one call: what the kernel glues together comes out in the same pieces.
    const int size = 1'000;
    const Bytes run(20 * size + 7, 'r');
    setsockopt(host.descriptor(), IPPROTO_UDP, UDP_SEGMENT, &size, sizeof size);
    host.send(run, ticket.port);
    for (int i = 0; i < 20; ++i) ASSERT_EQ(textFrom(viewer).size(), 1'000u) << i;
    EXPECT_EQ(textFrom(viewer).size(), 7u);

    RawUdpSocket stranger;
    stranger.send(bytesOf("VLREG" + std::string(32, '0')), ticket.port);
    stranger.send(bytesOf("let me in"), ticket.port);
    EXPECT_TRUE(comesTrue([&] { return dropped("unknown") >= 1; }));
    EXPECT_EQ(stranger.receive(0ms), std::nullopt);
    EXPECT_EQ(host.receive(0ms), std::nullopt);
}

TEST_F(UdpServiceTest, joinsAnIPv6SideToAnIPv4One) {
    RawUdp6Socket modern;
    if (!modern.isUsable()) GTEST_SKIP() << "no IPv6 on this machine's loopback";
    const auto ticket = issue();
    modern.send("VLREG" + ticket.token, ticket.port);
    EXPECT_EQ(modern.receive(), "VLACK");
    host.send(bytesOf("VLREG" + ticket.token), ticket.port);
    EXPECT_EQ(textFrom(host), "VLACK");
    modern.send("hello", ticket.port);
    EXPECT_EQ(textFrom(host), "hello");
    host.send(bytesOf("there"), ticket.port);
    EXPECT_EQ(modern.receive(), "there");
}

TEST_F(UdpServiceTest, answersStunFromTheAddressThatWasAsked) {
    const stun::TransactionId transaction{1, 2, 3};
    viewer.send(bytesOf("not STUN"), stunPort);
    viewer.send(stun::encodeBindingRequest(transaction), stunPort, 0x7F000009);
    const auto answer = viewer.receive(limit);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->fromHost, "127.0.0.9");
    const auto mapped = stun::decodeBindingResponse(answer->bytes, transaction);
    ASSERT_TRUE(mapped);
    EXPECT_EQ(mapped->text(), "127.0.0.1:" + std::to_string(viewer.port()));
}

TEST_F(UdpServiceTest, saysWhichPortItCannotHave) {
    RelayTable other(RelayTable::Parameters{.ports = {table->ports()[1]}});
    const auto second = UdpService::open({.stunPort = 0}, other, metrics);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().code, EADDRINUSE);
    EXPECT_THAT(second.error().text, testing::HasSubstr(std::to_string(table->ports()[1])));
    EXPECT_FALSE(UdpService::open({.address = "localhost"}, other, metrics));
}

}  // namespace
}  // namespace velmora
