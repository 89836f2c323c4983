#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Launcher.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// The launcher as a small window without a frame, which its window manager knows nothing of: so it takes no
/// focus and nothing can lie above it. Made and destroyed on the main queue; needs a QApplication.
class LauncherWindow final : public Launcher {
public:
    /// Gives what it started, or why it could not, in words to show.
    using Opener = std::function<Result<std::string>(const std::string& target)>;
    struct Parameters {
        std::chrono::milliseconds complaintTime{4000};  // long enough to be in the next screenshot
    };
    /// The queues outlive us. `open` runs on `worker`, perhaps after we have gone.
    LauncherWindow(Queue& main, Queue& worker, Opener open, const Parameters& parameters);
    LauncherWindow(Queue& main, Queue& worker, Opener open)
        : LauncherWindow(main, worker, std::move(open), Parameters{}) {}
    ~LauncherWindow() override;

    void show(const std::string& text, const PixelRect& display) override;
    void hide() override;
    void open(const std::string& text) override;

private:
    class Panel;
    void complain(const std::string& words);

    Queue& main_;
    Queue& worker_;
    const Opener open_;
    const Parameters parameters_;
    const std::unique_ptr<Panel> panel_;
    int generation_ = 0;  // of what the panel shows: a complaint that comes late spoils nothing
    TimerToken complaintEnd_;
    Liveness liveness_;
};

}  // namespace velmora
