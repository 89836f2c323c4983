#include "Testing/XServerFixture.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "Testing/XTestClient.h"

namespace velmora {
namespace {

using Kind = XServerFixture::Kind;

class XServerFixtureTest : public testing::TestWithParam<Kind> {};

TEST_P(XServerFixtureTest, serversRunSideBySideAndEndWithTheirFixtures) {
    pid_t pid = 0;
    {
        XServerFixture one(GetParam()), two(GetParam());
        ASSERT_TRUE(one.ok()) << one.error();
        ASSERT_TRUE(two.ok()) << two.error();
        EXPECT_NE(one.display(), two.display());
        EXPECT_TRUE(XTestClient(one.display()).ok());
        EXPECT_TRUE(XTestClient(two.display()).ok());
        pid = one.pid();
    }
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_P(XServerFixtureTest, programsSeeItsDisplayAndNoOther) {
    XServerFixture server(GetParam());
    ASSERT_TRUE(server.ok()) << server.error();
    auto shell = server.run({"sh", "-c", "test \"$DISPLAY\" = \"$WANTED\" -a -z \"$WAYLAND_DISPLAY\""},
                            {"WANTED=" + server.display()});
    ASSERT_TRUE(shell.ok());
    EXPECT_EQ((*shell)->waitForExit(std::chrono::seconds(20)), 0);
}

TEST_P(XServerFixtureTest, displaysTakeAnySize) {
    XServerFixture server(GetParam());
    ASSERT_TRUE(server.ok()) << server.error();
    XTestClient client(server.display());
    const std::string output = GetParam() == Kind::xvfb ? "screen" : "DUMMY0";
    EXPECT_TRUE(client.setOutput(output, {0, 0, 1366, 768}));
    EXPECT_TRUE(client.setOutput(output, {0, 0, 1440, 900}));
    if (GetParam() == Kind::xorgDummy) {
        EXPECT_TRUE(client.setOutput("DUMMY5", {1440, 0, 800, 600}));
        EXPECT_TRUE(client.makePrimary("DUMMY5"));
        EXPECT_TRUE(client.turnOff("DUMMY5"));
    }
    EXPECT_TRUE(client.defineMonitor("cut", {0, 0, 640, 400}));
}

INSTANTIATE_TEST_SUITE_P(Servers, XServerFixtureTest, testing::Values(Kind::xvfb, Kind::xorgDummy),
                         [](const auto& info) { return info.param == Kind::xvfb ? "Xvfb" : "Xorg"; });

TEST(ChildProgramTest, reportsHowAProgramEnded) {
    auto seven = ChildProgram::start({"sh", "-c", "exit 7"});
    ASSERT_TRUE(seven.ok());
    EXPECT_EQ((*seven)->waitForExit(std::chrono::seconds(20)), 7);

    auto cat = ChildProgram::start({"sh", "-c", "kill -9 $$"});
    ASSERT_TRUE(cat.ok());
    EXPECT_EQ((*cat)->waitForExit(std::chrono::seconds(20)), 128 + SIGKILL);

    auto missing = ChildProgram::start({"/nowhere/at/all"});
    ASSERT_TRUE(missing.ok());
    EXPECT_EQ((*missing)->waitForExit(std::chrono::seconds(20)), 127);
}

}  // namespace
}  // namespace velmora
