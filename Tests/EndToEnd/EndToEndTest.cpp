#include "Tests/EndToEnd/EndToEndTest.h"

#include <algorithm>
#include <iostream>

namespace velmora {

void EndToEndTest::TearDown() {
    if (!HasFailure()) return;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path())) {
        const auto name = entry.path().filename().string();
        if (!name.starts_with("output-") && name != "velmora.log") continue;
        std::cout << "--- " << std::filesystem::relative(entry.path(), folder_.path()).string() << "\n"
                  << contentOf(entry.path());
    }
}

void EndToEndTest::startServer(XServerFixture::Kind kind, PixelSize size) {
    server_ = std::make_unique<XServerFixture>(
        XServerFixture::Options{.kind = kind, .size = size, .servesOtherNetworks = true});
    ASSERT_TRUE(server_->ok()) << server_->error();
    screen_ = std::make_unique<XTestClient>(server_->display());
    ASSERT_TRUE(screen_->ok());
    display_ = {0, 0, size.width, size.height};
    if (kind == XServerFixture::Kind::xorgDummy) {
        ASSERT_TRUE(screen_->setOutput("DUMMY0", display_));
    }
}

void EndToEndTest::moveDisplayRight() {
    display_.x = 1024;
    ASSERT_TRUE(screen_->setOutput("DUMMY1", display_));
    ASSERT_TRUE(screen_->setOutput("DUMMY0", {0, 0, 1024, 768}));
    ASSERT_TRUE(screen_->makePrimary("DUMMY1"));
}

std::unique_ptr<RunningProgram> EndToEndTest::launchHost(const std::optional<std::string>& display) {
    return std::make_unique<RunningProgram>(
        std::vector<std::string>{VELMORA_PROGRAM},
        RunningProgram::Place{.home = homeOf("host"), .display = display, .rendezvous = rendezvous});
}

std::unique_ptr<RunningProgram> EndToEndTest::startHost() {
    auto host = launchHost(server_ ? std::optional(server_->display()) : std::nullopt);
    EXPECT_TRUE(host->says("waiting for a viewer", 1, within(20))) << host->said();
    readHostLine(*host);
    return host;
}

std::unique_ptr<RunningProgram> EndToEndTest::startRendezvous() {
    const std::string listen = "127.0.0.1:8470";
    rendezvous = "ws://" + listen;
    return std::make_unique<RunningProgram>(std::vector<std::string>{RENDEZVOUS_PROGRAM, "--listen", listen},
                                            RunningProgram::Place{.home = homeOf("service")});
}

bool EndToEndTest::isRegistered(const RunningProgram& host) {
    return host.says("Online · Reachable from anywhere with this ID and password", 1, within(20));
}

void EndToEndTest::readHostLine(const RunningProgram& host) {
    const std::string text = host.said();
    const auto start = text.find("Host ID ");
    const auto mark = text.find(" · password ");
    ASSERT_TRUE(start != std::string::npos && mark != std::string::npos) << text;
    hostLine = text.substr(start, text.find('\n', start) - start);
    password = text.substr(mark + std::string(" · password ").size(), 7);
    std::erase(password, ' ');
}

std::unique_ptr<RunningProgram> EndToEndTest::look(std::vector<std::string> options,
                                                   const std::string& device) {
    options.insert(options.begin(), {LOOK_PROGRAM, address});
    if (std::ranges::find(options, "--password") == options.end())
        options.insert(options.end(), {"--password", password});
    return std::make_unique<RunningProgram>(options, RunningProgram::Place{.home = homeOf(device)});
}

std::unique_ptr<RunningProgram> EndToEndTest::watch(const std::string& device,
                                                    std::vector<std::string> options) {
    options.insert(options.begin(), {LOOK_PROGRAM, address, "--password", password, "--script", "-"});
    auto viewer = std::make_unique<RunningProgram>(
        options, RunningProgram::Place{.home = homeOf(device), .takesLines = true});
    if (!does(*viewer, "wait 0")) return nullptr;
    return viewer;
}

bool EndToEndTest::does(RunningProgram& viewer, const std::string& step) {
    const std::string done = "ok " + step + "\n";
    const std::string before = viewer.said();
    int times = 1;
    for (auto at = before.find(done); at != std::string::npos; at = before.find(done, at + 1)) ++times;
    viewer.tell(step);
    const auto isDone = [&] { return viewer.says(done, times, std::chrono::milliseconds(0)); };
    if (eventually([&] { return isDone() || !viewer.isRunning(); }) && isDone()) return true;
    ADD_FAILURE() << "not done: " << step << "\n" << viewer.said();
    return false;
}

std::unique_ptr<RunningProgram> EndToEndTest::startOnScreen(const std::vector<std::string>& command) {
    return std::make_unique<RunningProgram>(
        command, RunningProgram::Place{.home = homeOf("desktop"), .display = server_->display()});
}

}  // namespace velmora
