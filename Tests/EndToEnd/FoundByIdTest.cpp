#include <fmt/format.h>

#include <csignal>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

/// The built service, host and agent, which know nothing of each other but the Host ID and the password.
class FoundByIdTest : public EndToEndTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startServer());
        service = startRendezvous();
        host = startHost();
        ASSERT_TRUE(isRegistered(*host)) << host->said() << service->said();
        agent = std::make_unique<RunningProgram>(
            std::vector<std::string>{VELMORA_PROGRAM, "mcp", "--own-display"},
            RunningProgram::Place{.home = homeOf("agent"), .takesLines = true, .rendezvous = rendezvous});
    }
    /// Has the agent call a tool: whether the answer has these words in it.
    testing::AssertionResult answers(const std::string& tool, const std::string& arguments,
                                     const std::string& words) {
        const int id = ++calls_;
        agent->tell(fmt::format(
            R"({{"jsonrpc":"2.0","id":{},"method":"tools/call","params":{{"name":"{}","arguments":{}}}}})",
            id, tool, arguments));
        const std::string start = fmt::format("{{\"jsonrpc\":\"2.0\",\"id\":{},\"result\":", id);
        std::string answer;
        eventually(
            [&] {
                const std::string said = agent->said();
                const auto from = said.find(start);
                const auto to = said.find('\n', std::min(from, said.size()));
                if (to == std::string::npos) return false;
                answer = said.substr(from, to - from);
                return true;
            },
            within(30));
        if (answer.find(words) != std::string::npos) return testing::AssertionSuccess();
        return testing::AssertionFailure() << answer << "\n" << agent->said() << service->said();
    }
    std::string credentials(const std::string& id, const std::string& secret) const {
        return fmt::format(R"({{"device":"{}","password":"{}"}})", id, secret);
    }
    std::string wrongPassword() const { return password == "000000" ? "000001" : "000000"; }

    std::unique_ptr<RunningProgram> service, host, agent;

private:
    int calls_ = 0;
};

TEST_F(FoundByIdTest, anAgentMeetsAHostAndHearsHowItStands) {
    const std::string refusal = "Wrong password. The password for {} didn't match.";
    EXPECT_TRUE(answers("connect", credentials(hostId(), wrongPassword()),
                        fmt::format(fmt::runtime(refusal), hostId())));
    EXPECT_TRUE(answers("connect", credentials("123 456 789", password),
                        fmt::format(fmt::runtime(refusal), "123 456 789")));
    EXPECT_TRUE(
        answers("connect", credentials(hostId(), password), fmt::format("Connected to {} via ", hostId())));
    EXPECT_TRUE(answers("screenshot", "{}", "1280×800 px"));

    host->signal(SIGTERM);
    EXPECT_EQ(host->end(within(20)), 0);
    EXPECT_TRUE(agent->says("Connection ended: ", 1, within(20)));
    EXPECT_TRUE(answers("screenshot", "{}", fmt::format("{} is offline", hostId())));

    service.reset();
    EXPECT_TRUE(answers("screenshot", "{}", "No connection to Velmora Cloud"));
}

}  // namespace
}  // namespace velmora
