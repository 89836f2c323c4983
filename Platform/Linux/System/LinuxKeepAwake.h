#pragma once

#include <memory>

#include "Platform/KeepAwake.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

/// Asks whoever decides about sleep on this machine: logind and the desktop's power manager for the machine,
/// the desktop's screen saver service, else the X server, for the display. All that are there are asked; one
/// that agrees is enough. Bus and X calls happen on a worker.
class LinuxKeepAwake final : public KeepAwake {
public:
    /// `main` outlives us; assertions do not.
    explicit LinuxKeepAwake(Queue& main);
    ~LinuxKeepAwake() override;

    std::unique_ptr<Assertion> preventIdleSystemSleep(const std::string& reason, Outcome outcome) override;
    std::unique_ptr<Assertion> preventIdleDisplaySleep(const std::string& reason, Outcome outcome) override;
    void declareUserActivity(const std::string& name) override;
    /// Nothing slows a Linux process down for saving power: the token only stands for the span.
    std::unique_ptr<Assertion> beginActivity(const std::string& reason) override;

private:
    class Services;  // on the worker
    class Inhibition;
    class Held;
    using Inhibit = Status (*)(Services& services, const std::string& reason, Inhibition& inhibition);

    std::unique_ptr<Assertion> hold(const std::string& reason, Outcome outcome, Inhibit inhibit);

    Queue& main_;
    const std::shared_ptr<Services> services_;
    ThreadQueue worker_{"velmora.power"};
};

}  // namespace velmora
