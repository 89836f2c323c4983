#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "Platform/Displays.h"
#include "Platform/Picture.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// A picture of the screen, already in the codec's colours and at the asked size. Lent for the call only,
/// except `picture`, which may be kept and read on the capture queue until the next sample overwrites it
/// there (one picture is updated in place: that is what keeps a keystroke cheap).
struct ScreenSample {
    SharedPicture picture;
    /// What differs from the previous sample of this stream, in picture pixels, even-aligned, clipped,
    /// sorted by y and not overlapping. The whole picture for a first sample and after any change of size,
    /// display or configuration.
    std::span<const PixelRect> damage;
    /// When the change happened on the screen, as near as the system tells; HostClock, strictly rising.
    std::uint64_t captureMicros = 0;
};

/// One running capture of one display, without the cursor. Its screen work happens on a thread of its own;
/// samples and every completion arrive on the queue given at construction by the factory.
/// Nothing changes on the screen: nothing is delivered. There is room for one picture, the newest: while
/// `onSample` runs, changes add up.
/// Operations may be called from any thread. Destroy it on any thread, but not from within `admit` or
/// `onSample`; nothing fires afterwards, and completions still owed are dropped.
class ScreenCapture {
public:
    struct Configuration {
        DisplayId display = 0;
        PixelSize size;  // of the pictures; the display is scaled to it when it differs
        int framesPerSecond = 60;
    };
    enum class Admission {
        take,    // capture now
        putOff,  // keep the change; ask again when `resume` is called
    };
    using Completion = UniqueFunction<void(Status)>;

    virtual ~ScreenCapture() = default;

    /// Asked right before each capture, on the queue; unset means take. A change that was put off stays due:
    /// nothing of it is lost.
    std::function<Admission()> admit;
    std::function<void(const ScreenSample&)> onSample;
    /// Capture ended by itself (the display or the window system went away). Once; no sample follows.
    std::function<void(const Failure&)> onStopped;

    /// Begins; the first sample is the whole picture. Fails in words when the screen cannot be captured
    /// (none is connected, or the session does not let programs read it).
    virtual void start(const Configuration& configuration, Completion completion) = 0;
    /// Changes display or size of a running capture without a gap; the next sample is a whole picture. If it
    /// fails, capture goes on as it was. A display that changes its mode by itself is shown scaled to `size`
    /// until it is updated; the first sample then is a whole picture too.
    virtual void update(const Configuration& configuration, Completion completion) = 0;
    /// Ends it; no callback but this completion follows (and that of a `start` under way, which fails). It
    /// may be started again.
    virtual void stop(Completion completion) = 0;

    /// What was put off may be captured now. Cheap; any thread.
    virtual void resume() = 0;
    /// The next sample is a whole picture, taken even if nothing changed. Any thread.
    virtual void captureWhole() = 0;
};

/// Makes captures whose callbacks arrive on `queue`.
class ScreenCaptureFactory {
public:
    virtual ~ScreenCaptureFactory() = default;
    virtual std::unique_ptr<ScreenCapture> make(Queue& queue) = 0;
};

}  // namespace velmora
