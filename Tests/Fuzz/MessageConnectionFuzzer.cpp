#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Transport/MessageConnection.h"

// A control stream of arbitrary bytes, arriving in arbitrary cuts: the messages must be those that a plain
// parser finds in the whole, and no length that a peer claims may make us hold more than the limit.
// Input: options, cut pattern, the stream. Options: bit 0 the peer is not admitted, bit 1 the stream fails
// at its end instead of ending.

namespace velmora {
namespace {

using Messages = std::vector<std::pair<MessageType, Bytes>>;

void check(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

/// What should come of the whole stream; nothing more once a length is refused.
Messages parse(ByteView data, std::size_t limit) {
    Messages messages;
    while (data.size() >= 5) {
        const std::size_t length = std::size_t{data[1]} << 24 | data[2] << 16 | data[3] << 8 | data[4];
        if (length > MessageConnection::maxPayload || data.size() - 5 < length) break;
        if (const auto type = messageTypeOf(data[0])) {
            const auto payload = data.subspan(5, length > limit ? 0 : length);
            messages.emplace_back(*type, Bytes(payload.begin(), payload.end()));
        }
        data = data.subspan(5 + length);
    }
    return messages;
}

void run(std::uint8_t options, std::uint8_t cuts, ByteView data) {
    const bool isAdmitted = (options & 1) == 0;
    const auto limit = isAdmitted ? MessageConnection::maxPayload : MessageConnection::unauthenticatedPayload;
    VirtualTime time;
    VirtualQueue queue(time);
    const auto stream = std::make_shared<ScriptedStream>(queue);
    const auto connection = std::make_shared<MessageConnection>(stream, queue);
    if (!isAdmitted) connection->setUnauthenticatedLimit(limit);
    Messages messages;
    connection->onMessage = [&](MessageType type, Bytes payload) {
        messages.emplace_back(type, std::move(payload));
    };
    connection->adoptStarted();

    std::uint32_t pattern = cuts + 1u;
    for (std::size_t offset = 0; offset < data.size();) {
        pattern = pattern * 1664525u + 1013904223u;
        const auto most = cuts < 128 ? std::size_t{cuts} + 1 : std::size_t{cuts} * 64;
        const auto count = std::min(data.size() - offset, 1 + (pattern >> 8) % most);
        stream->arrive(data.subspan(offset, count));
        time.settle();
        check(stream->requestedCount() <= limit, "nobody is asked for more than the limit");
        check(stream->requestedCount() == 0 || stream->bufferedCount() < stream->requestedCount(),
              "what has been asked for and is there is read");
        offset += count;
    }
    if ((options & 2) != 0 && stream->requestedCount() > 0) {
        stream->answerReadWith({.data = {}, .error = TransportError{104, "Connection reset by peer"}});
    } else {
        stream->arriveEnd();
    }
    time.settle();
    check(stream->requestedCount() == 0, "nothing is read after the end");
    check(stream->cancelCount == 1, "a stream that ended is cancelled once");
    check(messages == parse(data, limit), "the messages are those in the bytes");
    check(connection->pendingBytes() == 0, "reading sends nothing");
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    velmora::run(data[0], data[1], {data + 2, size - 2});
    return 0;
}
