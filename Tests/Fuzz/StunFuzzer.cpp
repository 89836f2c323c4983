// Packets on the ports where STUN is spoken, at a client and at a server. The client's transaction is the one
// that the packet claims, since a fuzzer does not guess twelve bytes.

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "VelmoraKit/Wire/RelayTags.h"
#include "VelmoraKit/Wire/StunMessage.h"

using namespace velmora;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView packet(data, size);
    stun::TransactionId transaction{};
    if (size >= stun::headerSize) std::copy_n(data + 8, transaction.size(), transaction.begin());

    const auto mapped = stun::decodeBindingResponse(packet, transaction);
    const auto again =
        mapped ? stun::decodeBindingResponse(stun::encodeBindingResponse(transaction, *mapped), transaction)
               : std::nullopt;
    const auto request = stun::decodeBindingRequest(packet);
    const auto token = relayTags::tokenOf(packet);
    const bool survives = mapped == again && (!request || *request == transaction) &&
                          (!token || std::ranges::equal(relayTags::registration(*token), packet));
    if (!survives) {
        std::fputs("a decoded packet does not survive its own encoding\n", stderr);
        std::abort();
    }
    return 0;
}
