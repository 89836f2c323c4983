#pragma once

#include <functional>
#include <memory>
#include <string>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Keeps the machine and its display from going to sleep. Lives on the main queue; nothing blocks it.
class KeepAwake {
public:
    /// What was asked holds until this is destroyed.
    class Assertion {
    public:
        virtual ~Assertion() = default;
    };
    /// Told once, on the main queue, unless the assertion is destroyed first: it holds now, or why it cannot
    /// (`Failure::code` is the number to show).
    using Outcome = std::function<void(Status)>;

    virtual ~KeepAwake() = default;

    /// No sleep for idleness. The display may still go dark. `reason` is shown to people. Never null; an
    /// assertion that failed holds nothing.
    [[nodiscard]] virtual std::unique_ptr<Assertion> preventIdleSystemSleep(const std::string& reason,
                                                                            Outcome outcome) = 0;
    /// The display stays on and the screen saver away.
    [[nodiscard]] virtual std::unique_ptr<Assertion> preventIdleDisplaySleep(const std::string& reason,
                                                                             Outcome outcome) = 0;
    /// Somebody is here: wakes a display that is off. A lock screen stays locked.
    virtual void declareUserActivity(const std::string& name) = 0;

    /// Latency-critical work for a user goes on: nothing may slow this process down for saving power.
    [[nodiscard]] virtual std::unique_ptr<Assertion> beginActivity(const std::string& reason) = 0;
};

}  // namespace velmora
