#include <fmt/format.h>

#include <fstream>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

class AgentClientTest : public EndToEndTest {
protected:
    /// An application that the launcher finds by its name, and that writes down what is typed into it.
    void installWriter() {
        std::filesystem::create_directories(homeOf("host") / "data" / "applications");
        std::ofstream(homeOf("host") / "data" / "applications" / "writer.desktop")
            << "[Desktop Entry]\nType=Application\nName=Page Writer\nExec=" << TEXT_FIELD << " "
            << written().string() << "\n";
    }
    std::filesystem::path written() const { return folder_ / "written.txt"; }
};

/// The client is in AgentClient/client.mjs, and not ours: it is the protocol's own library that it drives.
TEST_F(AgentClientTest, theOfficialClientLibraryRunsTheWholeCatalogue) {
    ASSERT_NO_FATAL_FAILURE(startServer());
    const auto manager = startOnScreen({"openbox", "--sm-disable"});
    ASSERT_TRUE(eventually([&] { return screen().hasWindowManager(); }, within(20)));
    installWriter();
    const auto service = startRendezvous();
    const auto host = startHost();
    ASSERT_TRUE(isRegistered(*host)) << host->said() << service->said();
    const auto client = startOnScreen(
        {"env", "VELMORA_SIGNALING=" + rendezvous, "ADDRESS=127.0.0.1", "HOST_ID=" + hostId(),
         "PASSWORD=" + password, "AGENT_HOME=" + homeOf("agent").string(), "WRITTEN=" + written().string(),
         "TASK_WINDOW=" TASK_WINDOW, "VELMORA_PROGRAM=" VELMORA_PROGRAM, "node", AGENT_CLIENT});
    EXPECT_EQ(client->end(within(200)), 0);
    EXPECT_TRUE(client->says("all 19 steps are done", 1, within(0))) << client->said();
}

}  // namespace
}  // namespace velmora
