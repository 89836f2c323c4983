// What comes over the WebSocket, at a client and at the service. What decodes must encode to a text that
// decodes to the same message.

#include <cstdio>
#include <cstdlib>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

using namespace velmora;

namespace {

template <class Decode>
void exercise(std::string_view text, Decode decode) {
    const auto message = decode(text);
    if (!message) return;
    const std::string encoded = rendezvous::encode(*message);
    // Defaults that the text left out may take it over the limit.
    if (encoded.size() > rendezvous::longestMessage || decode(encoded) == message) return;
    std::fputs("a decoded message does not survive its own encoding\n", stderr);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf({data, size});
    exercise(text, rendezvous::decodeFromClient);
    exercise(text, rendezvous::decodeToClient);
    return 0;
}
