#include "Agent/MCPServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

/// Answers when the test says so.
class HeldTools final : public ToolBox {
public:
    const nlohmann::ordered_json& catalogue() const override { return catalogue_; }
    void call(const std::string& name, const Json& arguments, Done done) override {
        calls.emplace(name, arguments);
        pending[name] = std::move(done);
    }
    void disconnect() override { ++disconnects; }

    std::multimap<std::string, Json> calls;
    std::map<std::string, Done> pending;
    int disconnects = 0;

private:
    const nlohmann::ordered_json catalogue_ = {{{"name", "b"}, {"description", "a/b"}}};
};

class MCPServerTest : public testing::Test {
protected:
    MCPServerTest() {
        server.onFinished = [this] { finished = true; };
    }
    /// What is written in answer to one line, the lines joined.
    std::string answerTo(std::string_view line) {
        output.clear();
        server.takeLine(line);
        return output;
    }
    std::string call(const std::string& id, const std::string& name) {
        return answerTo(R"({"id":)" + id + R"(,"method":"tools/call","params":{"name":")" + name + R"("}})");
    }

    VirtualTime time;
    VirtualQueue main{time, "main"};
    HeldTools tools;
    std::string output;
    bool finished = false;
    MCPServer server{tools, main, [this](const std::string& line) { output += line + "|"; }, {}};
};

constexpr const char* parseError =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}}|)";

TEST_F(MCPServerTest, aLineThatIsNoObjectIsAnsweredAsSuch) {
    const std::string deep =
        R"({"method":"ping","id":)" + std::string(600, '[') + std::string(600, ']') + "}";
    for (const std::string line :
         {"x", "[]", "1", "\"a\"", "{", "{}{}", " ", "[{\"id\":1,\"method\":\"ping\"}]",
          R"({"id":1e999,"method":"ping"})", deep.c_str()}) {
        EXPECT_EQ(answerTo(line), parseError) << line;
    }
    EXPECT_EQ(answerTo(""), "");
}

TEST_F(MCPServerTest, bracketsInTextAreNoNesting) {
    const std::string brackets(2000, '[');
    EXPECT_EQ(answerTo(R"({"method":"ping","id":"\")" + brackets + "\"}"),
              R"({"jsonrpc":"2.0","id":"\")" + brackets + R"(","result":{}}|)");
}

TEST_F(MCPServerTest, idsComeBackUntouchedAndWithoutOneThereIsNoAnswer) {
    for (const std::string id : {"1", "-1", "\"a/b\"", "null", "1.5", "18446744073709551615", "[1]",
                                 "{\"a\":[]}", "\"\xC3\xA9\"", "false"}) {
        EXPECT_EQ(answerTo(R"({"id":)" + id + R"(,"method":"ping"})"),
                  R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":{}}|)");
    }
    EXPECT_EQ(answerTo(R"({"method":"ping"})"), "");
    EXPECT_EQ(answerTo("{\"id\":\"\xFF\",\"method\":\"ping\"}"),
              "{\"jsonrpc\":\"2.0\",\"id\":\"\xEF\xBF\xBD\",\"result\":{}}|");
}

TEST_F(MCPServerTest, whatIsNotUnderstoodIsRefusedOnlyIfItAsks) {
    EXPECT_EQ(answerTo(R"({"id":1})"), "");
    EXPECT_EQ(answerTo(R"({"id":1,"method":2})"), "");
    EXPECT_EQ(answerTo(R"({"method":"notifications/cancelled","params":{"requestId":1}})"), "");
    EXPECT_EQ(
        answerTo(R"({"id":7,"method":"resources/list","params":[]})"),
        R"({"jsonrpc":"2.0","id":7,"error":{"code":-32601,"message":"Method not found: resources/list"}}|)");
}

TEST_F(MCPServerTest, theProtocolVersionIsTheAgentsIfItIsKnown) {
    const auto versionFor = [&](const std::string& params) {
        const std::string answer = answerTo(R"({"id":1,"method":"initialize","params":)" + params + "}");
        return Json::parse(answer.substr(0, answer.size() - 1)).at("result").at("protocolVersion");
    };
    EXPECT_EQ(versionFor(R"({"protocolVersion":"2024-11-05"})"), "2024-11-05");
    for (const char* params :
         {R"({"protocolVersion":"1999-01-01"})", "{}", "[]", R"({"protocolVersion":5})"}) {
        EXPECT_EQ(versionFor(params), "2025-06-18") << params;
    }
    EXPECT_EQ(
        answerTo(R"({"id":1,"method":"initialize"})"),
        R"({"jsonrpc":"2.0","id":1,"result":{"protocolVersion":"2025-06-18","capabilities":{"tools":{}},)"
        R"("serverInfo":{"name":"velmora","version":"dev"},"instructions":"Controls a remote Mac through )"
        R"(Velmora. Take a screenshot first; all coordinates are pixels in the latest screenshot."}}|)");
}

TEST_F(MCPServerTest, toolsAreListedInTheirOrder) {
    EXPECT_EQ(answerTo(R"({"id":1,"method":"tools/list"})"),
              R"({"jsonrpc":"2.0","id":1,"result":{"tools":[{"name":"b","description":"a/b"}]}}|)");
}

TEST_F(MCPServerTest, toolsAnswerWhenTheyAreDone) {
    EXPECT_EQ(call("1", "slow") + call("2", "quick"), "");
    tools.pending.at("quick")(ToolAnswer::failure("no"));
    EXPECT_EQ(
        output,
        R"({"jsonrpc":"2.0","id":2,"result":{"content":[{"type":"text","text":"no"}],"isError":true}}|)");
    output.clear();
    tools.pending.at("slow")(
        {{ToolContent::picture(ToolContent::Kind::jpeg, {0xFF, 0xFF, 0xFF, 0}),
          ToolContent::picture(ToolContent::Kind::png, {}), ToolContent::words("\xFFz")}});
    EXPECT_EQ(output, R"({"jsonrpc":"2.0","id":1,"result":{"content":[)"
                      R"({"type":"image","data":"////AA==","mimeType":"image/jpeg"},)"
                      R"({"type":"image","data":"","mimeType":"image/png"},)"
                      "{\"type\":\"text\",\"text\":\"\xEF\xBF\xBDz\"}],\"isError\":false}}|");
}

TEST_F(MCPServerTest, aCallIsMadeWhateverItLacks) {
    answerTo(R"({"method":"tools/call","params":{"name":"a","arguments":{"x":1}}})");
    answerTo(R"({"method":"tools/call","params":{"name":5,"arguments":[1]}})");
    answerTo(R"({"method":"tools/call"})");
    EXPECT_EQ(tools.calls, (std::multimap<std::string, Json>{
                               {"a", {{"x", 1}}}, {"", Json::object()}, {"", Json::object()}}));
    tools.pending.at("a")(ToolAnswer::words("done"));
    EXPECT_EQ(output, "");
}

TEST_F(MCPServerTest, theEndOfTheInputLeavesTimeForAGoodbye) {
    server.endInput();
    EXPECT_EQ(tools.disconnects, 1);
    time.advanceBy(299ms);
    EXPECT_FALSE(finished);
    time.advanceBy(1ms);
    EXPECT_TRUE(finished);
}

}  // namespace
}  // namespace velmora
