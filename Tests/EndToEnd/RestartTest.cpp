#include <algorithm>
#include <csignal>
#include <fstream>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

class Restart : public EndToEndTest {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(startServer()); }
    static void stop(RunningProgram& program) {
        program.signal(SIGTERM);
        EXPECT_EQ(program.end(), 0) << program.said();
    }
    std::filesystem::path preferencesOf(const std::string& device) const {
        return homeOf(device) / "config/velmora/preferences.json";
    }
};

TEST_F(Restart, keepsTheHostsIdPasswordAndCertificate) {
    auto host = startHost();
    const std::string before = hostLine;
    const auto first = look({"--log"});
    EXPECT_EQ(first->end(), 0) << first->said();
    EXPECT_TRUE(first->says("remembering its certificate"));
    stop(*host);

    host = startHost();
    EXPECT_EQ(hostLine, before);
    const auto again = look({"--log"});  // trusts the certificate that it remembers, and only that
    EXPECT_EQ(again->end(), 0) << again->said();
    EXPECT_EQ(again->said().find("remembering its certificate"), std::string::npos);
    stop(*host);

    std::filesystem::remove_all(homeOf("host"));
    host = startHost();
    EXPECT_NE(hostLine, before);
    const auto deceived = look({"--log"});
    EXPECT_EQ(deceived->end(), 1);
    EXPECT_TRUE(deceived->says("presented a different certificate than last time; refusing"))
        << deceived->said();
}

TEST_F(Restart, setsBrokenPreferencesAside) {
    const std::string broken = "{\"host.startOnLaunch\": true, \"kept by hand\": ";
    for (const std::string device : {"host", "viewer"}) {
        std::filesystem::create_directories(preferencesOf(device).parent_path());
        std::ofstream(preferencesOf(device)) << broken;
    }
    const auto host = startHost();
    const auto viewer = look({"--log"});
    EXPECT_EQ(viewer->end(), 0);
    EXPECT_TRUE(viewer->says("⚠︎ The preferences could not be read; kept as ")) << viewer->said();
    stop(*host);
    for (const std::string device : {"host", "viewer"}) {
        const auto file = preferencesOf(device);
        EXPECT_NE(contentOf(file), broken);
        EXPECT_TRUE(std::ranges::any_of(std::filesystem::directory_iterator(file.parent_path()),
                                        [&](const auto& entry) { return contentOf(entry.path()) == broken; }))
            << device;
    }
}

}  // namespace
}  // namespace velmora
