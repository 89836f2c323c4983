#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "Testing/ScratchFolder.h"
#include "Testing/XServerFixture.h"

namespace velmora {

/// A D-Bus daemon of its own, on which nothing starts by itself. While it lives, the environment of this
/// process names it as the session bus or the system bus.
class PrivateBus {
public:
    enum class Role { session, system };
    /// `socket` is where it listens, a place of its own if empty. libdbus reads the environment once in a
    /// process: a program that starts several buses for it gives them all the same socket.
    explicit PrivateBus(Role role, std::filesystem::path socket = {});
    ~PrivateBus();

    const std::string& address() const { return address_; }
    bool isRunning() const { return daemon_ != nullptr; }
    /// Ends the daemon; its clients are cut off.
    void stop() { daemon_.reset(); }

private:
    const char* const variable_;
    ScratchFolder folder_;
    const std::filesystem::path socket_;
    const std::string address_;
    std::unique_ptr<ChildProgram> daemon_;
};

}  // namespace velmora
