#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Codec/AvPointers.h"
#include "Platform/VideoDecompressor.h"

namespace velmora {

/// H.264 and HEVC by libavcodec: in hardware (VA-API) where a device is given and takes the stream, else in
/// software with slice threads only. Frame threads would hold pictures back.
///
/// libavcodec is no judge of damage: a stream with a frame missing, or half a frame of HEVC, comes out as
/// pictures with no flag set. So this class refuses what it can see by itself (lengths that do not add up,
/// no keyframe since the last failure), counts every flag and error as a failure, and leaves the rest to the
/// transport, which hands over whole frames in order or none.
class AvcodecDecompressor final : public VideoDecompressor {
public:
    struct Parameters {
        std::vector<std::string> devices;           // render nodes to try, such as /dev/dri/renderD128
        int maxSide = 16384;                        // larger pictures are refused unseen
        std::int64_t maxPixels = 36 * 1024 * 1024;  // 7680x4320 and some; 54 MB a picture, up to 17 at once
        int threads = 2;                            // per picture, where it has slices to share
    };
    static Result<std::unique_ptr<VideoDecompressor>> open(const StreamConfig& config,
                                                           const Parameters& parameters);

    Result<SharedPicture> decode(ByteView data) override;
    /// Same codec, readable parameter sets within the limits: the decoder takes them over with the next
    /// keyframe, of whatever size. What still arrives of the old stream decodes as before.
    bool accepts(const StreamConfig& config) override;
    bool isHardware() const override { return isHardware_; }

private:
    AvcodecDecompressor(VideoCodec codec, const Parameters& parameters)
        : codec_(codec), parameters_(parameters) {}
    Status openContext(const StreamConfig& config, const std::string* device);
    Status send(ByteView data, bool keyframe);
    Result<SharedPicture> receive();
    Result<SharedPicture> pictureOf(AvFramePtr frame);
    Failure fail(std::string text, int code = 0);
    static AVPixelFormat chooseFormat(AVCodecContext* context, const AVPixelFormat* offered);

    const VideoCodec codec_;
    const Parameters parameters_;
    std::vector<Bytes> parameterSets_;
    std::optional<Bytes> nextConfiguration_;  // goes with the next keyframe
    AvContextPtr context_;
    AvPacketPtr packet_;
    bool isHardware_ = false;
    bool awaitsKeyframe_ = true;
    int refusedFormat_ = -1;  // the last one complained about
};

class AvcodecDecompressorFactory final : public VideoDecompressorFactory {
public:
    explicit AvcodecDecompressorFactory(AvcodecDecompressor::Parameters parameters)
        : parameters_(std::move(parameters)) {}
    bool canDescribe(const StreamConfig& config) override;
    Result<std::unique_ptr<VideoDecompressor>> make(const StreamConfig& config) override;

private:
    const AvcodecDecompressor::Parameters parameters_;
};

}  // namespace velmora
