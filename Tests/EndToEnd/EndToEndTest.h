#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Testing/ScratchFolder.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "Tests/EndToEnd/Programs.h"
#include "Tests/EndToEnd/Screen.h"

namespace velmora {

/// The built programs against each other: a host on a screen of its own, and viewers over the loopback.
class EndToEndTest : public testing::Test {
protected:
    static constexpr const char* address = "127.0.0.1";

    /// After a failure: what all the programs have said, and the host's diary.
    void TearDown() override;

    /// Who a program is: a device has its own settings, secrets and logs, which outlive the program.
    std::filesystem::path homeOf(const std::string& device) const { return folder_ / device; }

    /// The first statement of a test that needs a screen.
    void startServer(XServerFixture::Kind kind = XServerFixture::Kind::xvfb, PixelSize size = {1280, 800});
    XServerFixture& server() { return *server_; }
    /// Our own client of the host's screen.
    XTestClient& screen() { return *screen_; }
    const PixelRect& display() const { return display_; }
    /// What the host shares: the main display, with another one beside it, on the left.
    void moveDisplayRight();

    /// A host that waits for viewers; `password` is set then.
    std::unique_ptr<RunningProgram> startHost();
    /// The same without waiting for anything.
    std::unique_ptr<RunningProgram> launchHost(const std::optional<std::string>& display);
    std::string password;  // of the host
    std::string hostLine;  // that tells its ID and password
    std::string hostId() const { return hostLine.substr(std::string("Host ID ").size(), 11); }
    std::string rendezvous = RunningProgram::Place().rendezvous;  // of a host that is started from now on
    /// A service on the loopback, which is `rendezvous` from now on.
    std::unique_ptr<RunningProgram> startRendezvous();
    /// Whether the host can be found by its ID within reason.
    bool isRegistered(const RunningProgram& host);
    void readHostLine(const RunningProgram& host);

    /// A viewer that connects and ends when it has seen a resting picture.
    std::unique_ptr<RunningProgram> look(std::vector<std::string> options = {},
                                         const std::string& device = "viewer");
    /// A viewer that stays and does what it is told. It has a picture when this returns; none if it gets
    /// none.
    std::unique_ptr<RunningProgram> watch(const std::string& device = "viewer",
                                          std::vector<std::string> options = {});
    /// Has the viewer do a step of its script, and waits until it is done.
    static bool does(RunningProgram& viewer, const std::string& step);

    /// A program of its own on the host's screen.
    std::unique_ptr<RunningProgram> startOnScreen(const std::vector<std::string>& command);

    ScratchFolder folder_;

private:
    std::unique_ptr<XServerFixture> server_;
    std::unique_ptr<XTestClient> screen_;
    PixelRect display_;
};

}  // namespace velmora
