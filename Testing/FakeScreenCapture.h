#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ScreenCapture.h"

namespace velmora {

class FakeScreenCapture;

/// A screen in memory, in shades of grey: tests paint on it, and captures show it. Makes captures like the
/// factory of a real one. Everything happens on the test's own thread, in virtual time.
class FakeScreen final : public ScreenCaptureFactory {
public:
    void setDisplay(DisplayId id, PixelSize size);  // also changes its mode
    void removeDisplay(DisplayId id);
    /// From 0 (black) to 255 (white).
    void paint(DisplayId display, const PixelRect& rect, std::uint8_t grey);
    /// The window system ends: running captures stop by themselves, and none can be started.
    void fail(const Failure& failure);

    std::unique_ptr<ScreenCapture> make(Queue& queue) override;
    /// Those that exist now, oldest first.
    const std::vector<FakeScreenCapture*>& captures() const { return captures_; }

private:
    friend class FakeScreenCapture;
    struct Content {
        PixelSize size;
        std::vector<std::uint8_t> greys;
    };
    std::map<DisplayId, Content> displays_;
    std::optional<Failure> failure_;
    std::vector<FakeScreenCapture*> captures_;
};

/// A capture of a FakeScreen, which outlives it. Paced like a real one: at once after a pause, else once in
/// each frame interval.
class FakeScreenCapture final : public ScreenCapture {
public:
    FakeScreenCapture(FakeScreen& screen, Queue& queue);
    ~FakeScreenCapture() override;

    void start(const Configuration& configuration, Completion completion) override;
    void update(const Configuration& configuration, Completion completion) override;
    void stop(Completion completion) override;
    void resume() override;
    void captureWhole() override;

    bool isRunning() const { return running_; }
    const Configuration& configuration() const { return configuration_; }

private:
    friend class FakeScreen;
    Status show(const Configuration& configuration);
    void changed(const PixelRect& rect);  // in pixels of the display
    void end(const Failure& failure);
    void schedule();
    void capture();
    std::vector<PixelRect> damageFrom(const std::vector<PixelRect>& changes, PixelSize source) const;
    void render(const FakeScreen::Content& content, const PixelRect& rect);

    FakeScreen& screen_;
    Queue& queue_;
    Configuration configuration_;
    bool running_ = false;
    bool isPutOff_ = false;
    bool wholeWanted_ = false;
    std::vector<PixelRect> changes_;
    std::optional<std::uint64_t> changedAt_;
    std::uint64_t lastMicros_ = 0;
    HostClock::time_point nextBeat_{};
    std::shared_ptr<PictureBuffer> buffer_;
    SharedPicture view_;
    TimerToken due_;  // held exactly while a capture is due
    Liveness alive_;
};

}  // namespace velmora
