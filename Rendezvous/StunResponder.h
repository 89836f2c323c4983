#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Rendezvous/UdpAddress.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Tells whoever asks under which address and port it is seen. An answer is 12 bytes longer than the question
/// (24 with IPv6), and senders can be forged, so each subscriber gets a limited number of them.
/// Used by one thread.
class StunResponder {
public:
    using Time = HostClock::time_point;
    struct Parameters {
        std::chrono::microseconds interval{20'000};  // between answers to one subscriber, in the long run
        std::uint32_t burst = 100;                   // an office whose machines all wake at once
        std::size_t buckets = 65'536;                // 8 bytes each; who shares one shares its rate
    };
    StunResponder();
    explicit StunResponder(Parameters parameters);

    enum class Refusal { malformed, limited };
    struct Reaction {
        std::optional<Bytes> answer;
        std::optional<Refusal> refusal;  // set if there is no answer
    };
    Reaction reactTo(ByteView packet, const UdpAddress& from, Time now);

private:
    bool mayAnswer(const IpAddress& to, Time now);

    const Parameters parameters_;
    const AddressHash hash_;
    std::vector<Time> paidUntil_;  // by bucket: each answer pays for one interval
};

}  // namespace velmora
