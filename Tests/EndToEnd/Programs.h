#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Testing/XServerFixture.h"

namespace velmora {

/// `seconds` on a machine that does nothing else; VELMORA_TEST_SLOWNESS multiplies it.
std::chrono::milliseconds within(double seconds);

/// Looks again and again until `condition` holds; false if it does not in time.
template <class F>
bool eventually(F condition, std::chrono::milliseconds limit = within(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // between two looks
    }
    return true;
}

std::string contentOf(const std::filesystem::path& file);

/// One of the built programs, what it says, and how it ends. It ends with this object.
class RunningProgram {
public:
    /// `home` holds the folders of settings, secrets and logs; two programs of one home are one device. None
    /// of `display`: no screen to be had.
    struct Place {
        std::filesystem::path home;
        std::optional<std::string> display;
        bool takesLines = false;                      // see `tell`
        std::string rendezvous = "ws://127.0.0.1:1";  // nobody: found by address alone
        std::optional<std::string> wayland{};         // the compositor's socket
        std::vector<std::string> environment{};       // "NAME=value", beside what the rest says
    };
    RunningProgram(const std::vector<std::string>& command, const Place& place);
    ~RunningProgram();
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// All that it has said so far, on standard output and standard error.
    std::string said() const { return contentOf(output_); }
    /// Waits until it has said `words`, `times` times by now.
    bool says(std::string_view words, int times = 1, std::chrono::milliseconds limit = within(10)) const;

    /// A line for its standard input.
    void tell(const std::string& line);

    pid_t pid() const { return child_->pid(); }
    void signal(int number) { child_->signal(number); }
    bool isRunning() { return child_ && !child_->waitForExit(std::chrono::milliseconds(0)); }
    /// Waits for its end: the exit status, or none if it goes on.
    std::optional<int> end(std::chrono::milliseconds limit = within(10)) {
        return child_->waitForExit(limit);
    }

private:
    std::filesystem::path output_;
    int input_ = -1;
    std::unique_ptr<ChildProgram> child_;
};

}  // namespace velmora
