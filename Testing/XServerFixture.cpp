#include "Testing/XServerFixture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

extern char** environ;

namespace velmora {
namespace {

constexpr const char* dummyConfiguration = R"(
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
  Option "DontVTSwitch" "true"
  Option "AllowMouseOpenFail" "true"
  Option "BlankTime" "0"
  Option "StandbyTime" "0"
  Option "OffTime" "0"
EndSection
Section "Device"
  Identifier "device"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 1-2000
  VertRefresh 1-500
EndSection
Section "Screen"
  Identifier "screen"
  Device "device"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual 7680 4320
  EndSubSection
EndSection
Section "ServerLayout"
  Identifier "layout"
  Screen "screen"
EndSection
)";

std::vector<std::string> environmentWith(const ChildProgram::Environment& changes) {
    std::map<std::string, std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string line = *entry;
        all[line.substr(0, line.find('='))] = line;
    }
    for (const std::string& change : changes) {
        const auto equals = change.find('=');
        const std::string name = change.substr(0, equals);
        if (equals == std::string::npos) {
            all.erase(name);
        } else {
            all[name] = change;
        }
    }
    std::vector<std::string> lines;
    for (auto& [name, line] : all) lines.push_back(std::move(line));
    return lines;
}

std::vector<char*> pointersTo(const std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// What the server writes when it is ready: its display number and a line feed, perhaps in two writes.
/// Nothing when it ends first or takes longer than any machine should.
std::optional<std::string> readDisplayNumber(int fd) {
    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd poller{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&poller, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
        char c = 0;
        if (read(fd, &c, 1) != 1) return std::nullopt;
        if (c == '\n') return number.empty() ? std::nullopt : std::optional(number);
        number += c;
    }
}

/// Of no other server's of this process, and hardly of another's.
int numberOfItsOwn() {
    static int count = 0;
    constexpr int first = 100, span = 50'000, mostOfAProcess = 8;
    return first + (getpid() * mostOfAProcess + count++ % mostOfAProcess) % span;
}

}  // namespace

Result<std::unique_ptr<ChildProgram>> ChildProgram::start(const std::vector<std::string>& arguments,
                                                          const Environment& changes, bool quiet,
                                                          const std::vector<int>& inherited) {
    // Everything that allocates happens before the fork: a test may have other threads.
    const std::vector<std::string> environment = environmentWith(changes);
    const std::vector<char*> argv = pointersTo(arguments);
    const std::vector<char*> envp = pointersTo(environment);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) return Failure{fmt::format("cannot fork: {}", std::strerror(errno)), errno};
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        if (quiet) {
            const int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
        }
        for (const int fd : inherited) fcntl(fd, F_SETFD, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    return std::unique_ptr<ChildProgram>(
        new ChildProgram(pid, static_cast<int>(syscall(SYS_pidfd_open, pid, 0))));
}

ChildProgram::~ChildProgram() {
    signal(SIGTERM);
    if (!waitForExit(std::chrono::seconds(2))) {
        signal(SIGKILL);
        waitForExit(std::chrono::seconds(10));
    }
    close(pidFd_);
}

void ChildProgram::signal(int number) {
    if (!status_) ::kill(pid_, number);
}

std::optional<int> ChildProgram::waitForExit(std::chrono::milliseconds limit) {
    if (status_) return status_;
    pollfd poller{pidFd_, POLLIN, 0};
    if (poll(&poller, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return std::nullopt;
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return status_;
}

XServerFixture::XServerFixture(const Options& options) {
    error_ = start(options);
    if (!error_.empty()) server_.reset();
}

XServerFixture::~XServerFixture() {
    server_.reset();
    std::error_code ignored;
    if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::string XServerFixture::start(const Options& options) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return fmt::format("no pipe: {}", std::strerror(errno));
    const std::string fd = std::to_string(ends[1]);
    std::vector<std::string> command;
    if (options.kind == Kind::xvfb) {
        command = {"Xvfb", "-screen", "0",
                   fmt::format("{}x{}x{}", options.size.width, options.size.height, options.depth)};
    } else {
        char folder[] = "/tmp/velmora-xorg-XXXXXX";
        if (mkdtemp(folder) == nullptr) return "no folder for the server's configuration";
        folder_ = folder;
        std::ofstream(folder_ + "/xorg.conf") << dummyConfiguration;
        // Without a terminal of its own it would look for one and fail; nothing is ever shown there.
        command = {"Xorg",           "-config",   folder_ + "/xorg.conf", "-logfile",
                   folder_ + "/log", "-sharevts", "-novtswitch",          "vt7"};
    }
    // Without -noreset modes, monitors and selections vanish whenever the last client leaves.
    if (options.servesOtherNetworks) command.push_back(fmt::format(":{}", numberOfItsOwn()));
    command.insert(command.end(), {"-noreset", "-nolisten", "tcp", "-displayfd", fd});
    command.insert(command.end(), options.arguments.begin(), options.arguments.end());

    auto server = ChildProgram::start(command, {"DISPLAY", "WAYLAND_DISPLAY"}, true, {ends[1]});
    close(ends[1]);
    const auto number = server ? readDisplayNumber(ends[0]) : std::nullopt;
    close(ends[0]);
    if (!server) return server.error().text;
    if (!number) return fmt::format("{} did not start", command[0]);
    server_ = std::move(server).value();
    display_ = ":" + *number;
    return {};
}

void XServerFixture::kill() {
    server_->signal(SIGKILL);
    server_->waitForExit(std::chrono::seconds(10));
    // What a killed server leaves behind would make its number look taken.
    std::error_code ignored;
    std::filesystem::remove(fmt::format("/tmp/.X11-unix/X{}", display_.substr(1)), ignored);
    std::filesystem::remove(fmt::format("/tmp/.X{}-lock", display_.substr(1)), ignored);
}

Result<std::unique_ptr<ChildProgram>> XServerFixture::run(const std::vector<std::string>& arguments,
                                                          ChildProgram::Environment changes) const {
    changes.insert(changes.begin(),
                   {"DISPLAY=" + display_, "WAYLAND_DISPLAY", "XDG_SESSION_TYPE=x11", "XAUTHORITY"});
    return ChildProgram::start(arguments, changes);
}

ScopedDisplay::ScopedDisplay(const std::string& display) {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "XAUTHORITY"}) {
        const char* value = getenv(name);
        before_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        unsetenv(name);
    }
    if (!display.empty()) setenv("DISPLAY", display.c_str(), 1);
}

ScopedDisplay::~ScopedDisplay() {
    for (const auto& [name, value] : before_) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
}

}  // namespace velmora
