#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// A program that a test started. Destruction ends it (SIGTERM, after 2 s SIGKILL) and reaps it; it also ends
/// when the thread that started it ends, so that a test that crashes leaves nothing behind.
class ChildProgram {
public:
    using Environment = std::vector<std::string>;  // "NAME=value" sets, "NAME" alone removes

    /// `arguments` begins with the program, looked up in PATH. Output goes where the test's own goes unless
    /// `quiet`. `inherited` names file descriptors that the child keeps besides the first three.
    static Result<std::unique_ptr<ChildProgram>> start(const std::vector<std::string>& arguments,
                                                       const Environment& changes = {}, bool quiet = false,
                                                       const std::vector<int>& inherited = {});
    ~ChildProgram();
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number);
    /// The exit status (128 + signal when it was killed by one), or none if it still runs after `limit`.
    std::optional<int> waitForExit(std::chrono::milliseconds limit);

private:
    ChildProgram(pid_t pid, int pidFd) : pid_(pid), pidFd_(pidFd) {}
    const pid_t pid_;
    const int pidFd_;
    std::optional<int> status_;
};

/// A private X server for tests, on a display number that the server itself finds free. The constructor
/// returns when the server accepts clients; the destructor ends it.
///
/// `xvfb` is the cheap one: a single output "screen", resizable up to the size it was started with.
/// `xorgDummy` is the real server on a driver without hardware: 16 outputs, DUMMY0 connected at first (in a
/// mode of the driver's choice: set one), and displays that come and go through RandR. See XTestClient.
class XServerFixture {
public:
    enum class Kind { xvfb, xorgDummy };
    struct Options {
        Kind kind = Kind::xvfb;
        PixelSize size{3840, 2160};  // of the root window; Xvfb only
        int depth = 24;              // Xvfb only
        std::vector<std::string> arguments{};
        /// Programs in other network namespaces are to find it. Servers in two of them may think the same
        /// number free, and the later one takes the place of the first: this one has a number of its own.
        bool servesOtherNetworks = false;
    };
    explicit XServerFixture(const Options& options);
    explicit XServerFixture(Kind kind) : XServerFixture(Options{.kind = kind}) {}
    ~XServerFixture();
    XServerFixture(const XServerFixture&) = delete;
    XServerFixture& operator=(const XServerFixture&) = delete;

    /// False when the server did not come up; `error` says why. Assert it first.
    bool ok() const { return server_ != nullptr; }
    const std::string& error() const { return error_; }

    /// What DISPLAY is set to, such as ":63".
    const std::string& display() const { return display_; }
    pid_t pid() const { return server_->pid(); }
    /// Ends the server under its clients' feet.
    void kill();

    /// Starts a program on this display, with nothing in its environment that points elsewhere.
    Result<std::unique_ptr<ChildProgram>> run(const std::vector<std::string>& arguments,
                                              ChildProgram::Environment changes = {}) const;

private:
    std::string start(const Options& options);

    std::string error_;
    std::string folder_;  // configuration and log of Xorg
    std::string display_;
    std::unique_ptr<ChildProgram> server_;
};

/// Sets DISPLAY for as long as it lives, and clears what would point at another session. For code under test
/// that reads the environment; one at a time, and no other thread running.
class ScopedDisplay {
public:
    explicit ScopedDisplay(const std::string& display);
    ~ScopedDisplay();
    ScopedDisplay(const ScopedDisplay&) = delete;
    ScopedDisplay& operator=(const ScopedDisplay&) = delete;

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> before_;
};

}  // namespace velmora
