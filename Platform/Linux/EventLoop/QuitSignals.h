#pragma once

#include <functional>
#include <memory>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Turns SIGTERM and SIGINT into a call on the main queue, so that the program ends by its own quit path.
/// SIGPIPE is ignored from here on: a peer that goes away is a value, not an end. One per process, made
/// before any thread starts, so that every thread inherits the blocked signals. A second signal while the
/// first is being served ends the process at once.
class QuitSignals {
public:
    QuitSignals();
    ~QuitSignals();

    /// `main` lives until `stop`.
    void deliver(Queue& main, std::function<void()> onQuit);
    /// The quit path has been gone, and what it was made of goes now: from here on a signal ends the process
    /// at once. May be repeated.
    void stop();

private:
    struct Watcher;
    std::unique_ptr<Watcher> watcher_;
};

}  // namespace velmora
