#pragma once

#include <cstdarg>
#include <string>
#include <vector>

#include "Platform/Linux/Codec/BlockQuality.h"
#include "Platform/VideoCompressor.h"

extern "C" {
struct x264_t;
}

namespace velmora {

/// H.264 by libx264 on the calling thread, tuned so that a picture is out when `encode` returns: no
/// lookahead, no reordering, one slice. At 1440x900 a keystroke costs about 4 ms of CPU, a full screen of
/// motion 11 to 18 ms.
class X264Compressor final : public VideoCompressor {
public:
    /// Fails in words if a side is odd or outside 16...16384, or the library refuses.
    static Result<std::unique_ptr<VideoCompressor>> open(const Configuration& configuration);
    ~X264Compressor() override;
    X264Compressor(const X264Compressor&) = delete;
    X264Compressor& operator=(const X264Compressor&) = delete;

    Result<CompressedPicture> encode(const Picture& picture, const Options& options) override;
    bool setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) override;
    VideoCodec codec() const override { return VideoCodec::h264; }
    bool isHardware() const override { return false; }
    bool usesLowLatencyRateControl() const override { return true; }
    std::string_view name() const override { return "libx264"; }

private:
    explicit X264Compressor(const Configuration& configuration);
    bool hasRateToSpare() const;
    int pictureStructure(const Options& options);
    bool readParameterSets();
    static void note(void* self, int level, const char* format, std::va_list arguments);
    Failure failure(std::string_view what) const;

    const PixelSize size_;
    const std::chrono::duration<double> interval_;
    std::int64_t bitsPerSecond_;
    std::chrono::milliseconds burst_;
    x264_t* encoder_ = nullptr;
    std::vector<Bytes> parameterSets_;
    BlockQuality quality_;
    std::int64_t nextTime_ = 0;
    double owedIntervals_ = 0;  // time that has passed and not been told to the library
    double lastQuantizer_ = 0;  // of the last picture, by the blocks coded in it
    std::string complaint_;     // the library's last words
};

}  // namespace velmora
