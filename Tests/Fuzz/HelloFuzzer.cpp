#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "Testing/HostFixture.h"
#include "Testing/ScriptedViewer.h"
#include "Testing/SimulatedLink.h"
#include "VelmoraKit/Wire/SessionRecords.h"

// A stranger says an arbitrary Hello to a whole host, and then arbitrary messages. Only the password or the
// token may open, whatever else the Hello holds; and whatever a viewer said, the next honest one is served.
// Input: options, length of the Hello u16, the Hello, then messages: type u8, length u8, payload.
// Options: bit 0 a session of device "A" runs, bit 1 token "T" is authorised, bit 2 the host's password
// cannot be read, bit 3 there are no datagrams.

namespace velmora {
namespace {

using namespace std::chrono_literals;

void check(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

class Input {
public:
    explicit Input(ByteView data) : rest_(data) {}
    bool isEmpty() const { return rest_.empty(); }
    std::uint8_t byte() {
        const ByteView one = bytes(1);
        return one.empty() ? 0 : one[0];
    }
    ByteView bytes(std::size_t count) {
        const ByteView head = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(head.size());
        return head;
    }

private:
    ByteView rest_;
};

struct Options {
    explicit Options(std::uint8_t bits)
        : hasSession(bits & 1), hasToken(bits & 2), hidesPassword(bits & 4), takesDatagrams(!(bits & 8)) {}
    const bool hasSession, hasToken, hidesPassword, takesDatagrams;
};

Hello honest() {
    return {.name = "Honest", .deviceID = "A", .password = HostFixture::password};
}

bool mayEnter(ByteView payload, const Options& options) {
    if (payload.size() > MessageConnection::unauthenticatedPayload) return false;
    const auto hello = Hello::decode(payload);
    if (!hello || hello->protocolVersion != velmoraProtocolVersion) return false;
    if (options.hasSession && hello->deviceID != "A") return false;
    if (options.hasToken && hello->sessionToken == "T") return true;
    return !options.hidesPassword && hello->password == HostFixture::password;
}

void run(ByteView data) {
    Input input(data);
    const Options options(input.byte());
    VirtualTime time;
    SimulatedLink link(time);
    VirtualQueue viewers(time, "viewer");
    HostFixture host(time, link);
    host.start();

    std::optional<ScriptedViewer> before;
    if (options.hasSession) {
        before.emplace(link, viewers);
        before->say(honest());
        time.advanceBy(20ms);
        check(host.isConnected, "an honest viewer is let in");
    }
    if (options.hidesPassword) host.credentials->password.reset();
    if (options.hasToken) host.server->authorize("T", "Cloud");

    ScriptedViewer stranger(link, viewers, {.takesDatagrams = options.takesDatagrams});
    const std::size_t length = std::size_t{input.byte()} << 8;
    const ByteView hello = input.bytes(length + input.byte());
    stranger.send(MessageType::hello, hello);
    time.advanceBy(1100ms);
    const bool entered = stranger.lastDisplayList().has_value();
    check(entered == mayEnter(hello, options), "the password or the token opens, and nothing else does");
    check(entered || stranger.denied() || stranger.ended, "whoever is not let in is told or cut off");

    while (!input.isEmpty()) {
        const auto type = messageTypeOf(input.byte());
        const ByteView payload = input.bytes(input.byte());
        if (type && !stranger.ended) stranger.send(*type, payload);
    }
    host.paint();
    time.advanceBy(4s);

    stranger.close();
    if (before) before->close();
    time.advanceBy(2s);
    host.credentials->password = HostFixture::password;
    ScriptedViewer after(link, viewers);
    after.say(honest());
    time.advanceBy(100ms);
    check(after.lastDisplayList().has_value(), "the next honest viewer is served");
    check(!after.frames.empty(), "and sees the screen");
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::run({data, size});
    velmora::DebugLog::shared().clear();
    return 0;
}
