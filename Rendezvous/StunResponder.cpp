#include "Rendezvous/StunResponder.h"

#include <algorithm>

#include "VelmoraKit/Wire/StunMessage.h"

namespace velmora {

StunResponder::StunResponder() : StunResponder(Parameters{}) {}

StunResponder::StunResponder(Parameters parameters)
    : parameters_(parameters), hash_(AddressHash::salted()), paidUntil_(parameters.buckets) {}

StunResponder::Reaction StunResponder::reactTo(ByteView packet, const UdpAddress& from, Time now) {
    const auto transaction = stun::decodeBindingRequest(packet);
    if (!transaction) return {.refusal = Refusal::malformed};
    if (!mayAnswer(from.ip, now)) return {.refusal = Refusal::limited};
    if (!isIPv4(from.ip)) return {.answer = stun::encodeBindingResponse(*transaction, from.ip, from.port)};
    stun::MappedAddress mapped{.port = from.port};
    std::copy(from.ip.begin() + 12, from.ip.end(), mapped.address.begin());
    return {.answer = stun::encodeBindingResponse(*transaction, mapped)};
}

bool StunResponder::mayAnswer(const IpAddress& to, Time now) {
    Time& paid = paidUntil_[hash_(subscriberOf(to)) % paidUntil_.size()];
    const Time next = std::max(paid, now) + parameters_.interval;
    if (next - now > parameters_.interval * parameters_.burst) return false;
    paid = next;
    return true;
}

}  // namespace velmora
