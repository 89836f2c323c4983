#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Decides when the last picture of a screen is encoded once more although nothing changed:
///  - *sharpening*: a changed area is first sent as coarse as the bit rate forces; once the screen rests, a
///    few quick repeats bring it to full quality. Where the rate is so low that they leave it blurred, slow
///    ones go on for some seconds, or a person would read a blurred page for ever;
///  - *closing*: the viewer learns of a lost frame from the frames that follow it. After the last one none
///    would, so two repeats follow, spaced to survive one burst of loss, and another one each time that the
///    last of them is known to be lost;
///  - *keyframe*: one was asked for while nothing changes, or the last one was lost and nobody mended it.
/// Pure: told what was sent and asked what is due. After the closing repeats a still screen costs nothing.
class RepeatScheduler {
public:
    using TimePoint = HostClock::time_point;
    using Duration = std::chrono::microseconds;

    enum class Kind { sharpening, closing, keyframe };

    struct Parameters {
        Duration sharpeningDelay{60'000};     // after the last change: typing and scrolling are over
        Duration sharpeningInterval{24'000};  // ten of them end within the limit
        Duration sharpeningLimit{300'000};    // after the last change
        int maxSharpenings = 10;
        double targetQuantizer = 16.5;   // what encoders here hold, and a little for the rounding
        double blurredQuantizer = 22;    // above it, small text is seen to be blurred
        Duration slowInterval{100'000};  // leaves room for whatever else the narrow link carries
        int maxSlowSharpenings = 50;
        std::array<Duration, 2> closings{Duration(40'000), Duration(160'000)};  // after the last frame
        Duration frameInterval{16'667};  // a changed picture within this time brings the keyframe itself
        Duration mendingTime{250'000};   // how long a viewer tries to mend a frame
        Duration ownKeyframeInterval{500'000};  // least time between keyframes that nobody asked for
    };

    RepeatScheduler() = default;
    explicit RepeatScheduler(Parameters parameters) : parameters_(parameters) {}

    /// A frame that was encoded and handed to the network.
    struct Frame {
        std::uint32_t number = 0;
        std::optional<Kind> repeats;  // none: it shows a change
        bool isKeyframe = false;
        std::optional<double> meanQuantizer;
    };
    void sent(const Frame& frame, TimePoint now);
    /// The repeat that was due gave no frame; it is not tried again at once.
    void failed(Kind kind, TimePoint now);

    void wantKeyframe(TimePoint now);
    /// Part of a frame did not reach the viewer, as far as the transport can tell.
    void lost(std::uint32_t frame, TimePoint now);
    /// The viewer asked for parts of a frame, and they were sent again.
    void mended(std::uint32_t frame);
    /// There is no picture to repeat until the next change is sent.
    void forgetPicture();

    std::optional<Kind> due(TimePoint now) const;
    /// When something is due next: not after `now` exactly if something is due. None: nothing is to come.
    std::optional<TimePoint> nextDue(TimePoint now) const;

private:
    std::optional<TimePoint> keyframeDue() const;
    std::optional<TimePoint> sharpeningDue(TimePoint now) const;
    std::optional<TimePoint> closingDue(TimePoint now) const;

    const Parameters parameters_{};
    bool hasPicture_ = false;

    TimePoint restsSince_{};  // the last change or keyframe: what came then may be coarse
    std::optional<double> quantizer_;
    int sharpenings_ = 0;
    TimePoint lastSharpening_{};

    std::uint32_t lastNumber_ = 0;
    TimePoint lastFrame_{};  // other than closing repeats, or the last closing repeat was lost
    std::size_t closingsSent_ = 0;

    std::optional<TimePoint> keyframeDueAt_;
    std::optional<std::uint32_t> lastKeyframe_;
    std::optional<TimePoint> keyframeLostAt_;
    std::optional<TimePoint> lastOwnKeyframe_;
};

}  // namespace velmora
