#include "Platform/Linux/Capture/MakeScreenCapture.h"

#include <cstdlib>
#include <string>
#include <string_view>

#include "Platform/Linux/Capture/X11ScreenCapture.h"

namespace velmora {
namespace {

/// Says why there is nothing to see, which is better than a black picture.
class UnavailableScreenCapture final : public ScreenCapture {
public:
    UnavailableScreenCapture(Queue& queue, Failure reason) : queue_(queue), reason_(std::move(reason)) {}
    void start(const Configuration&, Completion completion) override { refuse(std::move(completion)); }
    void update(const Configuration&, Completion completion) override { refuse(std::move(completion)); }
    void stop(Completion completion) override {
        queue_.post([done = std::move(completion)]() mutable { done(Done{}); });
    }
    void resume() override {}
    void captureWhole() override {}

private:
    void refuse(Completion completion) {
        queue_.post([reason = reason_, done = std::move(completion)]() mutable { done(std::move(reason)); });
    }
    Queue& queue_;
    const Failure reason_;
};

class UnavailableScreenCaptureFactory final : public ScreenCaptureFactory {
public:
    explicit UnavailableScreenCaptureFactory(Failure reason) : reason_(std::move(reason)) {}
    std::unique_ptr<ScreenCapture> make(Queue& queue) override {
        return std::make_unique<UnavailableScreenCapture>(queue, reason_);
    }

private:
    const Failure reason_;
};

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

}  // namespace

std::unique_ptr<ScreenCaptureFactory> makeScreenCaptureFactory() {
    // There may be an X server for old programs in such a session, but it shows only those, on black.
    if (!environment("WAYLAND_DISPLAY").empty() || environment("XDG_SESSION_TYPE") == "wayland") {
        return std::make_unique<UnavailableScreenCaptureFactory>(
            Failure{"this Wayland session does not let programs read the screen"});
    }
    return std::make_unique<X11ScreenCaptureFactory>(environment("DISPLAY"));
}

}  // namespace velmora
