#include "Rendezvous/StunResponder.h"

#include <gtest/gtest.h>

#include "VelmoraKit/Wire/StunMessage.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr stun::TransactionId transaction{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const Bytes request = stun::encodeBindingRequest(transaction);

UdpAddress place(std::uint8_t lastByte) {
    return {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, lastByte}, 32853};
}

TEST(StunResponderTest, tellsEachFamilyItsAddressAndNobodyElseAnything) {
    StunResponder responder;
    const StunResponder::Time now{1'000s};
    const auto answer = responder.reactTo(request, place(1), now).answer.value();
    EXPECT_EQ(stun::decodeBindingResponse(answer, transaction)->text(), "192.0.2.1:32853");

    const UdpAddress v6{{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 32853};
    EXPECT_EQ(responder.reactTo(request, v6, now).answer,
              stun::encodeBindingResponse(transaction, v6.ip, v6.port));
    Bytes longer = request;
    longer.push_back(0);
    for (const Bytes& other : {Bytes{}, Bytes(19), longer, answer}) {
        EXPECT_EQ(responder.reactTo(other, place(1), now).refusal, StunResponder::Refusal::malformed);
    }
}

TEST(StunResponderTest, limitsEachSubscriber) {
    StunResponder responder({.interval = 10ms, .burst = 5});
    StunResponder::Time now{1'000s};
    const auto answersTo = [&](const UdpAddress& from, int asked) {
        int answers = 0;
        for (int i = 0; i < asked; ++i) answers += responder.reactTo(request, from, now).answer.has_value();
        return answers;
    };
    EXPECT_EQ(answersTo(place(1), 8), 5);
    // Shares a bucket with the first one in 65,536 runs, but not with both.
    EXPECT_EQ(std::max(answersTo(place(2), 8), answersTo(place(3), 8)), 5);
    now += 20ms;
    EXPECT_EQ(answersTo(place(1), 8), 2);

    const UdpAddress v6{{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}, 1};
    UdpAddress neighbour = v6;
    neighbour.ip[15] = 2;  // the same /64
    const int first = answersTo(v6, 8);
    EXPECT_EQ(answersTo(neighbour, 8), 0) << first;
}

}  // namespace
}  // namespace velmora
