// Packets of a stranger at a host's door: whatever they are, the host goes on, keeps its bounds, and answers
// with no more than three times what it got. The input is a list of packets, each behind its length in two
// bytes; packets that are let in go on to the connection they opened.

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Platform/Linux/Network/QuicAdmission.h"
#include "Tests/TestIdentity.h"

namespace velmora {
namespace {

struct Nobody : QuicConnection::Observer {
    void onReady() override {}
    void onStreamData(std::int64_t, ByteView, bool) override {}
    void onStreamReset(std::int64_t, std::uint64_t) override {}
    void onDatagram(ByteView) override {}
    void onDatagramLost(std::uint64_t) override {}
    void onConnectionId(std::string_view) override {}
    void onConnectionIdRetired(std::string_view) override {}
    void onEnd(const QuicConnection::End&) override {}
};

void run(ByteView input) {
    static const auto tls = QuicTls::forServer(testIdentity().identity).value();
    const auto host = *SocketAddress::parse("192.0.2.1", 47272);
    const auto stranger = *SocketAddress::parse("192.0.2.2", 50000);
    HostClock::time_point now{std::chrono::seconds(1000)};
    QuicAdmission admission({.retryAbove = 1, .maxHalfOpen = 2});
    Nobody nobody;
    std::unique_ptr<QuicConnection> connection;
    PacketBatch answers;
    std::size_t got = 0;
    while (input.size() >= 2) {
        const std::size_t length = std::min<std::size_t>(input[0] << 8 | input[1], input.size() - 2);
        const ByteView packet = input.subspan(2, length);
        input = input.subspan(2 + length);
        got += packet.size();
        now += std::chrono::milliseconds(10);
        if (!connection) {
            const auto initial = admission.consider(packet, stranger, packet.size() % 3, answers, now);
            if (!initial) continue;
            auto made = QuicConnection::accept(*initial, stranger, host, tls, nobody, {}, now);
            if (!made) continue;
            connection = std::move(made).value();
        }
        connection->receive(packet, stranger, now);
        if (connection->deadline() <= now) connection->handleDeadline(now);
        connection->write(answers, now);
        if (connection->isGone()) connection.reset();
    }
    std::size_t sent = 0;
    for (const auto& packet : answers.packets()) sent += packet.length;
    if (sent > 3 * got) {
        std::fprintf(stderr, "%zu bytes answered to %zu\n", sent, got);
        std::abort();
    }
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::run({data, size});
    return 0;
}
