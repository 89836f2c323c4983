// Datagrams at the rendezvous service's UDP ports, from few addresses and with tokens that can be known, so
// that sessions come about, are repeated, contested and forgotten. Nothing may leave that did not come in.
//
// Input: steps of one byte of what to do, one of by whom and where, one of length, and that many bytes.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Rendezvous/RelayTable.h"
#include "Rendezvous/StunResponder.h"

using namespace velmora;

namespace {

void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

UdpAddress addressOf(std::uint8_t who) {
    UdpAddress address{.port = static_cast<std::uint16_t>(1'000 + who % 8)};
    if (who & 0x20) {
        address.ip[0] = 0x20;
        address.ip[15] = who & 7;
    } else {
        address.ip[10] = address.ip[11] = 0xFF;
        address.ip[15] = who & 3;
    }
    return address;
}

struct World {
    std::uint8_t issued = 0;
    RelayTable table{{.ports = {1, 2},
                      .maximumPairs = 6,
                      .sidesPerSource = 3,
                      .bytesPerSecond = 1'000,
                      .burst = 2'000,
                      .silentBytes = 500,
                      .newToken = [this] { return RelayTable::Token{issued++}; }}};
    StunResponder stun{{.buckets = 16}};
    RelayTable::Time now{std::chrono::hours(1)};
    std::vector<RelayTable::Departure> out;

    void datagrams(std::uint8_t who, ByteView bytes, std::size_t segmentSize) {
        const UdpAddress from = addressOf(who);
        out.clear();
        table.receive(who >> 7, {from, {}, bytes, segmentSize}, now, out);
        std::size_t leaving = 0;
        for (const auto& departure : out) {
            require(departure.segmentSize > 0, "a run of nothing");
            const bool borrowed =
                departure.bytes.data() >= bytes.data() &&
                departure.bytes.data() + departure.bytes.size() <= bytes.data() + bytes.size();
            require(departure.to == from ? departure.bytes.size() == 5 : borrowed, "bytes from elsewhere");
            leaving += departure.bytes.size();
        }
        require(leaving <= bytes.size(), "more went out than came in");
    }

    void registration(std::uint8_t who, std::uint8_t token) {
        char text[38];
        std::snprintf(text, sizeof text, "VLREG%02x000000000000000000000000000000", token);
        datagrams(who, viewOf(text), 37);
    }

    void request(std::uint8_t who, ByteView bytes) {
        const auto reaction = stun.reactTo(bytes, addressOf(who), now);
        require(reaction.answer.has_value() != reaction.refusal.has_value(), "neither answer nor reason");
        require(!reaction.answer || (bytes.size() >= 20 && reaction.answer->size() <= 44), "amplified");
    }

    void step(std::uint8_t what, std::uint8_t who, ByteView bytes) {
        switch (what % 8) {
            case 0:
                table.issue(std::string(1, static_cast<char>('0' + who % 4)), now);
                break;
            case 1:
                registration(who, bytes.empty() ? 0 : bytes[0]);
                break;
            case 2:
                now += std::chrono::milliseconds(100 * who);
                break;
            case 3:
                table.expire(now);
                break;
            case 4:
                request(who, bytes);
                break;
            case 5:
                datagrams(who, bytes, 37);
                break;
            case 6:
                datagrams(who, bytes, 1 + (what >> 3));
                break;
            default:
                datagrams(who, bytes, 65'535);
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    World world;
    ByteView rest(data, size);
    while (rest.size() >= 3) {
        const std::size_t length = std::min<std::size_t>(rest[2], rest.size() - 3);
        world.step(rest[0], rest[1], rest.subspan(3, length));
        rest = rest.subspan(3 + length);
    }
    world.now += std::chrono::hours(1);
    world.table.expire(world.now);
    require(world.table.counts().pairs == 0, "something is remembered for ever");
    for (int i = 0; i < 6; ++i)
        require(world.table.issue(std::to_string(i), world.now).has_value(), "a place is lost");
    return 0;
}
