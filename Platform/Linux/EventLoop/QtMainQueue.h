#pragma once

#include <memory>
#include <thread>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The main queue: blocks run in Qt's event loop, on the thread that made it. Make it after the
/// QCoreApplication and destroy it before; what is still waiting then is dropped. Timers are precise to a
/// millisecond and never early.
class QtMainQueue final : public Queue {
public:
    QtMainQueue();
    ~QtMainQueue() override;

    void post(Block block) override;
    TimerToken after(HostClock::duration delay, Block block) override;
    HostClock::time_point now() const override { return HostClock::now(); }
    bool isCurrent() const override { return std::this_thread::get_id() == thread_; }
    std::string_view name() const override { return "main"; }

private:
    class Receiver;
    const std::thread::id thread_;
    std::unique_ptr<Receiver> receiver_;
};

}  // namespace velmora
