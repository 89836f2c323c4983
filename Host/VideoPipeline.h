#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Host/BackPressure.h"
#include "Host/FrameSender.h"
#include "Host/LossProtection.h"
#include "Host/RateController.h"
#include "Host/RepeatScheduler.h"
#include "Host/VideoEncoder.h"
#include "Platform/ScreenCapture.h"
#include "Shared/ServerSettings.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/MessageConnection.h"

namespace velmora {

/// The road of a picture: captured, let through if the network can take it, encoded, sent; and sent once
/// more where that helps (see RepeatScheduler, LossProtection). Owned by StreamSession; lives on the capture
/// queue, where every call is made and every callback runs.
///
/// At rest it has no timer running: each of them is armed by a frame, and ends by itself.
class VideoPipeline : public std::enable_shared_from_this<VideoPipeline> {
public:
    struct Parameters {
        std::chrono::milliseconds gateInterval{4};    // between looks whether what was put off may go
        std::chrono::milliseconds rateInterval{100};  // between samples of the path
        std::chrono::milliseconds restAfter{1'000};   // without frames there is nothing to learn of the path
        double rateStep = 0.04;                       // smaller changes are not worth a new rate control
        double restartStep = 0.25;                    // worth a keyframe
        // How much of the rate one picture may take: where the path is wider than the rate it costs nothing;
        // where the path sets the rate, so long does everything wait behind it, and a viewer gives up a frame
        // of which no more than a part has come within 250 ms.
        std::chrono::milliseconds burst{500}, burstOnNarrowPath{80};
    };
    /// All outlive the pipeline, but `connection` and `sender`, which are shared.
    struct Services {
        Queue& capture;
        ScreenCaptureFactory& captures;
        VideoCompressorFactory& compressors;
        std::shared_ptr<MessageConnection> connection;
        std::shared_ptr<FrameSender> sender;
    };
    struct EncoderInfo {
        VideoCodec codec = VideoCodec::h264;
        bool usesLowLatencyRateControl = false;
        std::int64_t mbps = 0;
    };
    using Completion = ScreenCapture::Completion;

    VideoPipeline(Services services, const ServerSettings& settings);
    VideoPipeline(Services services, const ServerSettings& settings, Parameters parameters);
    ~VideoPipeline();

    /// The capture ended by itself.
    std::function<void(const Failure&)> onStopped;

    /// Pictures are of `size` from now on; those of another size disappear. It begins with a keyframe. After
    /// a failure the old encoder stays. `isDynamic`: the display follows the viewer's window.
    Result<EncoderInfo> replaceEncoder(PixelSize size, bool isDynamic);
    std::optional<PixelSize> encoderSize() const { return encoderSize_; }

    /// A new capture, whose pictures have the encoder's size. A capture that runs ends first.
    void startCapture(DisplayId display, Completion completion);
    /// The running capture goes on with another display or size.
    void updateCapture(DisplayId display, PixelSize size, Completion completion);
    /// `completion` runs when nothing captures any more; at once if nothing did.
    void stopCapture(Queue::Block completion);
    /// Stops the capture and lets the encoder go.
    void retire(Queue::Block completion);

    void requestKeyframe();
    /// The viewer takes at most so much; 0 is no limit.
    void limitRateTo(std::int64_t mbps);
    /// The rate that settings and viewer allow, Mbit/s.
    static std::int64_t allowedMbps(const ServerSettings& settings, std::int64_t viewerMaxMbps);

    // What the flow and the viewer tell.
    void handleLost(std::uint32_t frame);
    void handleMended(std::uint32_t frame);
    void handleDrained();

private:
    using TimePoint = HostClock::time_point;

    BackPressure::Load load() const;
    ScreenCapture::Admission admit();
    bool gateIsOpen();
    void reopenGate();
    void armGate();

    void handleSample(const ScreenSample& sample);
    void handleEncoded(const EncodedFrame& frame);
    void repeat(RepeatScheduler::Kind kind);
    void sendDueRepeat();
    void armRepeats();
    void forgetPicture();

    void sampleRate();
    double takeHeldBackShare(TimePoint now);
    void endHoldingBack(TimePoint now);
    void armRate();
    void applyRate();
    bool pathSetsRate() const;
    std::int64_t encoderRate() const;
    void scheduleCopy(std::uint32_t frame);
    void sendDueCopies();

    const Services services_;
    const Parameters parameters_;
    const ServerSettings settings_;
    Queue& queue_;
    FrameSender& sender_;

    std::unique_ptr<ScreenCapture> capture_;
    std::unique_ptr<VideoEncoder> encoder_;
    std::optional<PixelSize> encoderSize_;
    bool isDynamic_ = false;

    SharedPicture lastPicture_;  // what a repeat shows; the capture may write on into it between our calls
    std::uint64_t lastCaptureMicros_ = 0;
    RepeatScheduler repeats_;
    std::optional<RepeatScheduler::Kind> encodedRepeat_;  // of the frame being encoded; none: a change
    bool gaveFrame_ = false;                              // the encoder, for the last picture
    TimerToken repeatTimer_;
    TimePoint repeatTimerAt_{};

    BackPressure backPressure_;
    bool captureWaits_ = false, repeatWaits_ = false;  // put off until the gate opens
    // For the next sample of the rate:
    std::chrono::microseconds worstAge_{0};
    HostClock::duration heldBack_{0};  // and going on since heldBackSince_
    std::optional<TimePoint> heldBackSince_;
    TimePoint rateSampledAt_{};
    TimerToken gateTimer_;

    RateController rate_;
    LossProtection protection_;
    std::int64_t viewerMaxMbps_ = 0;
    std::int64_t appliedRate_ = 0;
    bool appliedNarrow_ = false;
    TimePoint lastSent_{};
    TimerToken rateTimer_;
    std::deque<std::pair<TimePoint, std::uint32_t>> copies_;
    TimerToken copyTimer_;
};

}  // namespace velmora
