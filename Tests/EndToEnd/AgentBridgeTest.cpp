#include <fmt/format.h>

#include <csignal>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

class AgentBridgeTest : public EndToEndTest {
protected:
    RunningProgram::Place place() { return {.home = homeOf("agent"), .takesLines = true}; }
    static std::string call(int id, const std::string& tool, const std::string& arguments) {
        return fmt::format(
            R"({{"jsonrpc":"2.0","id":{},"method":"tools/call","params":{{"name":"{}","arguments":{}}}}})",
            id, tool, arguments);
    }
};

TEST_F(AgentBridgeTest, anAgentLooksAtAHostAndLeavesIt) {
    ASSERT_NO_FATAL_FAILURE(startServer());
    const auto host = startHost();
    RunningProgram agent({VELMORA_PROGRAM, "mcp", "--own-display"}, place());
    agent.tell(call(1, "connect", fmt::format(R"({{"device":"{}","password":"{}"}})", address, password)));
    EXPECT_TRUE(agent.says(
        fmt::format(R"("text":"Connected to {} via LAN, screen 1280×800"}}],"isError":false)", address)))
        << agent.said();
    agent.tell(call(2, "screenshot", "{}"));
    EXPECT_TRUE(
        agent.says(R"("mimeType":"image/jpeg"},{"type":"text","text":"1280×800 px"}],"isError":false)"));
    agent.tell(call(3, "move", R"({"x":320,"y":200})"));
    EXPECT_TRUE(agent.says("Moved to 320, 200"));
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.end(), 0);
}

TEST_F(AgentBridgeTest, aRendezvousServiceThatIsNoUrlEndsEveryRole) {
    for (const std::string role : {"mcp", "host"}) {
        RunningProgram program({VELMORA_PROGRAM, role}, {.home = homeOf(role), .rendezvous = "not a url"});
        EXPECT_EQ(program.end(), 1);
        EXPECT_EQ(program.said(), "Velmora: VELMORA_SIGNALING: “not a url” is not a URL\n");
    }
}

TEST_F(AgentBridgeTest, textAndPicturesMoveThroughTheClipboards) {
    ASSERT_NO_FATAL_FAILURE(startServer());
    const auto host = startHost();
    RunningProgram agent({VELMORA_PROGRAM, "mcp", "--own-display"}, place());
    agent.tell(call(1, "connect", fmt::format(R"({{"device":"{}","password":"{}"}})", address, password)));
    ASSERT_TRUE(agent.says("Connected to ")) << agent.said();
    agent.tell(call(2, "get_clipboard", "{}"));
    EXPECT_TRUE(agent.says("Nothing copied on the remote Mac yet in this session."));

    agent.tell(call(3, "set_clipboard", R"({"text":"från en agent\n😀"})"));
    EXPECT_TRUE(agent.says("The remote clipboard holds 15 characters"));
    const auto pasted = homeOf("host") / "pasted";
    const auto shell = [](const std::string& command) {
        return std::vector<std::string>{"sh", "-c", command};
    };
    const std::string paste =
        fmt::format("xclip -selection clipboard -t UTF8_STRING -o >'{}'", pasted.string());
    EXPECT_TRUE(eventually(
        [&] {
            startOnScreen(shell(paste))->end();
            return contentOf(pasted) == "från en agent\n😀";
        },
        within(20)))
        << contentOf(pasted);

    int id = 10;
    // The host gives up a program that does not answer in time, so it is copied again.
    const auto agentGets = [&](const std::string& content, const std::string& type,
                               const std::string& words) {
        return eventually(
            [&] {
                const auto program =
                    startOnScreen(shell(content + " | xclip -quiet -selection clipboard -t " + type));
                return eventually(
                    [&] {
                        agent.tell(call(++id, "get_clipboard", "{}"));
                        return agent.says(fmt::format(R"("id":{})", id)) && agent.says(words, 1, within(0.1));
                    },
                    within(5));
            },
            within(30));
    };
    EXPECT_TRUE(
        agentGets("printf 'copied “there”'", "UTF8_STRING", R"({"type":"text","text":"copied “there”"})"))
        << agent.said();
    // A red pixel.
    const std::string png =
        "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVR4nGP4z8AAAAMBAQDJ/pLvAAAAAElFTkSuQmCC";
    EXPECT_TRUE(agentGets("echo " + png + " | base64 -d", "image/png",
                          R"("data":")" + png + R"(","mimeType":"image/png")"))
        << agent.said();
}

TEST_F(AgentBridgeTest, whatIsNotUnderstoodEndsItAtOnce) {
    RunningProgram agent({VELMORA_PROGRAM, "mcp", "--size", "1280"}, place());
    EXPECT_EQ(agent.end(), 2);
    EXPECT_EQ(agent.said(), "usage: Velmora mcp [--device NAME] [--size WIDTHxHEIGHT | --own-display]\n");
}

}  // namespace
}  // namespace velmora
