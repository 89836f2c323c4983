#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/Codec/AvPointers.h"
#include "Platform/VideoCompressor.h"

namespace velmora {

/// H.264 and HEVC in hardware through libavcodec: VA-API, NVENC or Quick Sync. Written from the libraries'
/// documentation; it has not run on hardware yet, so whatever does not behave as expected is a failure that
/// makes the caller try the next encoder.
class AvcodecHardwareCompressor final : public VideoCompressor {
public:
    enum class Interface { vaapi, nvenc, quickSync };

    /// `device` is the render node; NVENC finds its own. Tries the encoder's low-latency mode first, then
    /// without.
    static Result<std::unique_ptr<VideoCompressor>> open(Interface interface, const std::string& device,
                                                         const Configuration& configuration);

    /// `damage` and `refine` make no difference to these encoders.
    Result<CompressedPicture> encode(const Picture& picture, const Options& options) override;
    /// NVENC alone changes its rate while it runs.
    bool setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) override;
    VideoCodec codec() const override { return codec_; }
    bool isHardware() const override { return true; }
    bool usesLowLatencyRateControl() const override { return lowLatency_; }
    std::string_view name() const override { return name_; }

private:
    enum class Mode { lowLatency, plain };
    AvcodecHardwareCompressor(Interface interface, const Configuration& configuration, std::string name)
        : interface_(interface),
          codec_(configuration.codec),
          size_(configuration.size),
          name_(std::move(name)) {}
    Status openContext(const std::string& device, const Configuration& configuration, Mode mode);
    Status attachDevice(const std::string& device);
    Result<AvFramePtr> upload(const Picture& picture);
    Result<CompressedPicture> takePacket();

    const Interface interface_;
    const VideoCodec codec_;
    const PixelSize size_;
    const std::string name_;  // the library's, such as h264_vaapi
    AvBufferPtr device_;
    AvContextPtr context_;
    AvPacketPtr packet_;
    std::vector<Bytes> parameterSets_;  // the last ones seen: not every encoder repeats them
    std::int64_t nextTime_ = 0;
    bool lowLatency_ = false;
};

}  // namespace velmora
