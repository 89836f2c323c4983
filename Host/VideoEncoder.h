#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/VideoCompressor.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A compressed picture with the moments that the viewer's statistics are made of.
struct EncodedFrame {
    Bytes data;  // NAL units behind 4-byte lengths
    bool isKeyframe = false;
    std::uint64_t captureMicros = 0;  // when the picture stood on the screen
    std::uint64_t submitMicros = 0;   // when it was handed to the encoder
    std::uint64_t encodedMicros = 0;  // when the encoder gave it back
    /// On keyframes: SPS and PPS, or VPS, SPS and PPS, without length.
    std::optional<std::vector<Bytes>> parameterSets;
    std::optional<double> meanQuantizer;  // how coarse the viewer's picture is now, 0 to 51
};

/// Why there is no encoder. `status` is the last one tried.
struct EncoderError {
    std::int32_t status = 0;
    std::string text;
    static EncoderError createFailed(std::int32_t status, std::string text) {
        return {status, std::move(text)};
    }
};

/// Compresses the pictures of one fixed size for one stream; another size needs another VideoEncoder. Owned
/// by the stream session; lives on the capture queue, apart from `requestKeyframe`.
class VideoEncoder {
public:
    struct Configuration {
        int width = 0, height = 0;  // pixels, even
        VideoCodec codec = VideoCodec::h264;
        std::int64_t bitrate = 20'000'000;     // bit/s, as an average that is not exceeded for long
        std::chrono::milliseconds burst{500};  // how much of it one picture may take
        int fps = 60;
    };
    /// Runs inside `encode`, as the last thing it does.
    using Output = std::function<void(EncodedFrame)>;

    /// `factory` and `captureQueue` outlive the encoder. On any queue.
    static Result<std::unique_ptr<VideoEncoder>, EncoderError> make(VideoCompressorFactory& factory,
                                                                    Queue& captureQueue,
                                                                    const Configuration& configuration,
                                                                    Output onEncoded);

    struct Change {
        /// Where the picture differs from the one encoded before; none for a repeat.
        std::span<const PixelRect> damage;
        bool refine = false;  // raise the quality of the rest too
    };
    /// A picture that fails is dropped in silence: what was damaged then is encoded with the next one, and a
    /// keyframe that was asked for stays asked for. After `retire` it does nothing.
    void encode(const Picture& picture, std::uint64_t captureMicros, const Change& change);

    /// The next picture is to be a keyframe; the first one is anyway. Requests between two pictures cost one
    /// keyframe. From any thread.
    void requestKeyframe();
    bool keyframeIsDue() const;

    /// In bit/s, from the next picture. An encoder that cannot change while it runs is replaced by another,
    /// which begins with a keyframe; if there is none to be had, the old one goes on at its old rate.
    void setBitrate(std::int64_t bitrate, std::chrono::milliseconds burst);

    /// Ends the compression; nothing comes out afterwards.
    void retire();

    /// What is really in use, which may not be what was asked for. Kept after `retire`.
    VideoCodec codec() const { return codec_; }
    bool usesLowLatencyRateControl() const { return usesLowLatencyRateControl_; }
    bool isHardware() const { return isHardware_; }

private:
    VideoEncoder(VideoCompressorFactory& factory, Queue& captureQueue, const Configuration& configuration,
                 Output onEncoded);
    void use(std::unique_ptr<VideoCompressor> compressor);
    VideoCompressor::Configuration compressorConfiguration() const;
    std::uint64_t keyframeRequests() const;
    void keyframeCameOut(std::uint64_t requestsAnswered);

    VideoCompressorFactory& factory_;
    Queue& captureQueue_;
    Configuration configuration_;
    const Output onEncoded_;
    std::unique_ptr<VideoCompressor> compressor_;  // none once retired
    VideoCodec codec_ = VideoCodec::h264;
    bool usesLowLatencyRateControl_ = true;
    bool isHardware_ = false;
    std::optional<std::uint64_t> lastSubmitMicros_;
    bool missedDamage_ = false;  // a picture failed: what it changed is still to be encoded

    mutable std::mutex lock_;  // guards the two below
    bool forceKeyframe_ = true;
    std::uint64_t keyframeRequests_ = 0;
};

}  // namespace velmora
