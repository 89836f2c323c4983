#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "Tests/EndToEnd/EndToEndTest.h"

namespace velmora {
namespace {

constexpr int refused = 1;  // what `velmora-look` ends with

class Admission : public EndToEndTest {
protected:
    /// A host on a screen.
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(startServer());
        host_ = startHost();
    }
    static void expectEnd(RunningProgram& viewer, const std::string& words,
                          std::chrono::milliseconds limit = within(10)) {
        EXPECT_EQ(viewer.end(limit), refused);
        EXPECT_NE(viewer.said().find(words), std::string::npos) << viewer.said();
    }

    std::unique_ptr<RunningProgram> host_;
};

TEST_F(Admission, aWrongPasswordIsToldAndTheHostGoesOn) {
    const std::string wrong = password == "123456" ? "654321" : "123456";
    expectEnd(*look({"--password", wrong}), "The password for 127.0.0.1 didn't match.");
    EXPECT_EQ(look()->end(), 0);
    EXPECT_TRUE(host_->isRunning());
}

TEST_F(Admission, anotherDeviceIsToldThatTheHostIsInUse) {
    const auto viewer = watch();
    ASSERT_TRUE(viewer);
    expectEnd(*look({}, "other"), "127.0.0.1 is in use");
    EXPECT_TRUE(does(*viewer, "wait 0"));
    viewer->signal(SIGTERM);
    ASSERT_TRUE(viewer->end());
    ASSERT_TRUE(host_->says("waiting for a viewer", 2)) << host_->said();
    EXPECT_EQ(look({}, "other")->end(), 0);
}

TEST_F(Admission, theSameDeviceReplacesItsOldConnection) {
    const auto old = watch();
    ASSERT_TRUE(old);
    const auto fresh = watch();
    ASSERT_TRUE(fresh);
    expectEnd(*old, "127.0.0.1 ended the session");
    EXPECT_TRUE(does(*fresh, "wait 0"));
}

TEST_F(Admission, aHostThatStopsSaysGoodbye) {
    const auto viewer = watch();
    ASSERT_TRUE(viewer);
    host_->signal(SIGTERM);
    expectEnd(*viewer, "127.0.0.1 ended the session");
    EXPECT_EQ(host_->end(), 0);
}

TEST_F(Admission, aHostThatIsKilledIsMissed) {
    const auto viewer = watch();
    ASSERT_TRUE(viewer);
    host_->signal(SIGKILL);
    expectEnd(*viewer, "Connection to 127.0.0.1 lost", within(25));
}

TEST_F(Admission, aHostWhoseScreenGoesAwaySaysGoodbyeAndEnds) {
    const auto viewer = watch();
    ASSERT_TRUE(viewer);
    server().kill();
    expectEnd(*viewer, "127.0.0.1 ended the session");
    EXPECT_EQ(host_->end(), 1);
    EXPECT_TRUE(host_->says("The X11 connection broke")) << host_->said();
}

class WithoutScreen : public EndToEndTest {
protected:
    /// Holds the host's port.
    class OtherListener {
    public:
        OtherListener() {
            const sockaddr_in6 any{.sin6_family = AF_INET6, .sin6_port = htons(47272)};
            isBound_ = bind(socket_, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0;
        }
        ~OtherListener() { close(socket_); }
        OtherListener(const OtherListener&) = delete;
        OtherListener& operator=(const OtherListener&) = delete;
        bool isBound() const { return isBound_; }

    private:
        const int socket_ = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bool isBound_ = false;
    };
};

TEST_F(WithoutScreen, aViewerOfNobodyEndsInTime) {
    password = "123456";
    const auto viewer = look();
    EXPECT_EQ(viewer->end(within(12)), refused);
    EXPECT_NE(viewer->said().find("Can't reach 127.0.0.1"), std::string::npos) << viewer->said();
}

TEST_F(WithoutScreen, aHostWaitsForItsPort) {
    auto other = std::make_unique<OtherListener>();
    ASSERT_TRUE(other->isBound());
    const auto host = launchHost(std::nullopt);
    EXPECT_TRUE(host->says("Port 47272 is in use. Is another copy of Velmora running?")) << host->said();
    EXPECT_TRUE(host->isRunning());
    other.reset();
    EXPECT_TRUE(host->says("waiting for a viewer", 1, within(5))) << host->said();
}

TEST_F(WithoutScreen, aViewerIsToldThatThereIsNothingToSee) {
    const auto host = startHost();
    for (int attempt = 1; attempt <= 2; ++attempt) {
        const auto viewer = look();
        EXPECT_EQ(viewer->end(), refused);
        EXPECT_NE(viewer->said().find("127.0.0.1 can't share its screen\nScreen capture didn't start: "),
                  std::string::npos)
            << viewer->said();
        EXPECT_TRUE(host->says("waiting for a viewer", attempt + 1)) << host->said();
    }
    EXPECT_TRUE(host->isRunning());
}

}  // namespace
}  // namespace velmora
