#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "Agent/AgentTools.h"
#include "Agent/MCPServer.h"
#include "Testing/VirtualQueue.h"
#include "Tests/FakeRemoteMac.h"
#include "VelmoraKit/Core/LineAssembler.h"

// An agent writes arbitrary bytes. Each line is answered by at most one line, which is a JSON-RPC reply.
// Input: the bytes of the stream, the first of which says in how large pieces they come.

namespace velmora {
namespace {

using Json = nlohmann::json;

void check(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

void checkReply(const std::string& line) {
    check(line.find('\n') == std::string::npos, "a reply is one line");
    const Json reply = Json::parse(line, nullptr, false);
    check(reply.is_object() && reply.value("jsonrpc", "") == "2.0", "a reply is one of JSON-RPC 2.0");
    check(reply.contains("id") && reply.contains("result") != reply.contains("error"),
          "a reply has an id, and either a result or an error");
}

void run(ByteView data) {
    if (data.empty()) return;
    const std::size_t piece = std::size_t{data[0]} + 1;
    const std::string stream = textOf(data.subspan(1));

    VirtualTime time;
    VirtualQueue main(time);
    FakeRemoteMac mac;
    AgentTools tools(mac, main);
    int replies = 0;
    MCPServer server(tools, main,
                     [&](const std::string& line) {
                         ++replies;
                         checkReply(line);
                     },
                     {});
    LineAssembler lines(1000);
    lines.onLine = [&](const std::string& line) {
        replies = 0;
        server.takeLine(line);
        time.advanceBy(std::chrono::seconds(3));  // longer than any tool takes
        check(replies <= 1, "a line is answered once at most");
        for (const InputEvent& event : mac.sent)
            check(event.x >= 0 && event.x <= 1 && event.y >= 0 && event.y <= 1, "no click misses the screen");
        mac.sent.clear();
    };
    for (std::size_t at = 0; at < stream.size(); at += piece)
        lines.take(std::string_view(stream).substr(at, piece));
    lines.finish();
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::run({data, size});
    return 0;
}
