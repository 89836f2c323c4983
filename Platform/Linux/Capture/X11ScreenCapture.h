#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/Linux/Capture/CapturePacer.h"
#include "Platform/Linux/Capture/ScreenGrabber.h"
#include "Platform/Linux/Display/XEventWaiter.h"
#include "Platform/ScreenCapture.h"

namespace velmora {

/// Captures a display of an X server.
///
/// A thread of its own watches: it holds the one DAMAGE object, sleeps until the screen changes, and asks the
/// consumer's queue to capture when the pacer says so. Grabbing and converting happen on that queue, right
/// before the sample is handed over: the picture is then as new as can be when the encoder becomes free, one
/// buffer is enough, and there is never a second picture waiting.
///
/// When the display changes its mode, the picture keeps its size and shows the display scaled. A display that
/// goes away has a second to come back, since changing modes takes it away for a moment.
class X11ScreenCapture final : public ScreenCapture {
public:
    /// `xDisplay` as for XConnection. `queue` outlives us.
    X11ScreenCapture(Queue& queue, std::string xDisplay);
    ~X11ScreenCapture() override;

    void start(const Configuration& configuration, Completion completion) override;
    void update(const Configuration& configuration, Completion completion) override;
    void stop(Completion completion) override;
    void resume() override;
    void captureWhole() override;

private:
    enum class State { idle, starting, running, ended };  // ended: by itself
    /// What the watching thread opens and hands over to the queue.
    struct Opened {
        std::unique_ptr<XConnection> events;
        std::unique_ptr<ScreenGrabber> grabber;
        xcb_damage_damage_t damage = 0;
        int damageNotify = 0;  // the number of its event on this server
    };
    static Result<Opened> open(const std::string& xDisplay, const Configuration& configuration);

    // On the watching thread.
    void watch(const Configuration& configuration, Completion completion);
    void takeEvents(const XConnection& events, int damageNotify);
    /// Asks the queue if it is time to, on either thread. When to look again; none: when something happens.
    std::optional<HostClock::time_point> askWhenDue(HostClock::time_point now);

    // On the queue.
    void adopt(std::unique_ptr<ScreenGrabber> grabber, xcb_damage_damage_t damage, Completion completion);
    void answer();
    void capture(HostClock::time_point now);
    void lookAgain(HostClock::time_point now, std::string reason);
    void deliver(const CapturePacer::Capture& turn);
    void end(Failure failure);
    void stopWatching();

    Queue& queue_;
    const std::string xDisplay_;
    XEventWaiter waiter_;
    std::atomic<bool> ending_ = false;
    std::atomic<bool> displaysChanged_ = false;  // the place of our display has to be looked up again

    std::mutex mutex_;  // guards the pacer; never held while calling out
    CapturePacer pacer_{std::chrono::milliseconds(16)};

    // Of the queue.
    State state_ = State::idle;
    Configuration configuration_;
    std::unique_ptr<ScreenGrabber> grabber_;
    xcb_damage_damage_t damage_ = 0;
    std::uint64_t lastMicros_ = 0;
    std::optional<HostClock::time_point> missingSince_;  // while the display is not there

    std::thread watcher_;
    Liveness alive_;
};

class X11ScreenCaptureFactory final : public ScreenCaptureFactory {
public:
    explicit X11ScreenCaptureFactory(std::string xDisplay) : xDisplay_(std::move(xDisplay)) {}
    std::unique_ptr<ScreenCapture> make(Queue& queue) override {
        return std::make_unique<X11ScreenCapture>(queue, xDisplay_);
    }

private:
    const std::string xDisplay_;
};

/// When a change with this server timestamp (milliseconds of CLOCK_MONOTONIC, mod 2^32, cut off) happened,
/// given when we heard of it: as late as both allow. A timestamp that cannot be of that clock (a server on
/// another machine, one that has not looked at its clock for long) is passed over.
HostClock::time_point momentOfChange(std::uint32_t serverMilliseconds, HostClock::time_point heard);

}  // namespace velmora
