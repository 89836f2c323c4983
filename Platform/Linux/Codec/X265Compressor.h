#pragma once

#include <vector>

#include "Platform/VideoCompressor.h"

extern "C" {
struct x265_encoder;
struct x265_param;
struct x265_picture;
}

namespace velmora {

/// HEVC by libx265 on the calling thread. Far too slow for a desktop on two cores (40 to 150 ms a picture at
/// 1440x900): it is here for tests and for machines with time to spare.
class X265Compressor final : public VideoCompressor {
public:
    /// Fails in words if a side is odd or outside 32...8192, or the library refuses.
    static Result<std::unique_ptr<VideoCompressor>> open(const Configuration& configuration);
    ~X265Compressor() override;
    X265Compressor(const X265Compressor&) = delete;
    X265Compressor& operator=(const X265Compressor&) = delete;

    /// `damage` and `refine` make no difference: the library cannot be told.
    Result<CompressedPicture> encode(const Picture& picture, const Options& options) override;
    /// Always false: libx265 3.5 accepts a new rate and goes on at the old one.
    bool setRate(std::int64_t, std::chrono::milliseconds) override { return false; }
    VideoCodec codec() const override { return VideoCodec::hevc; }
    bool isHardware() const override { return false; }
    bool usesLowLatencyRateControl() const override { return true; }
    std::string_view name() const override { return "libx265"; }

private:
    explicit X265Compressor(PixelSize size) : size_(size) {}
    bool readParameterSets();

    const PixelSize size_;
    x265_param* parameters_ = nullptr;
    x265_encoder* encoder_ = nullptr;
    x265_picture* in_ = nullptr;
    x265_picture* out_ = nullptr;
    std::vector<Bytes> parameterSets_;
    std::int64_t nextTime_ = 0;
};

}  // namespace velmora
