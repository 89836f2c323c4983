#pragma once

#include <memory>
#include <optional>

#include "Platform/VideoDecompressor.h"

namespace velmora {

/// Reads what FakeVideoCompressor writes. Stricter than a real decoder: a picture missing between two is a
/// failure, not a wrong picture.
class FakeVideoDecompressor final : public VideoDecompressor {
public:
    explicit FakeVideoDecompressor(const StreamConfig& config, bool isHardware);

    Result<SharedPicture> decode(ByteView data) override;
    bool accepts(const StreamConfig& config) override;
    bool isHardware() const override { return isHardware_; }

    int decoded = 0;
    std::optional<Failure> failNext;  // given once instead of a picture

private:
    VideoCodec codec_;
    std::vector<Bytes> parameterSets_;
    std::optional<std::vector<Bytes>> nextParameterSets_;  // in force from the next keyframe
    const bool isHardware_;
    std::optional<std::uint32_t> lastNumber_;  // none: only a keyframe will do
    std::shared_ptr<PictureBuffer> picture_;
};

class FakeVideoDecompressorFactory final : public VideoDecompressorFactory {
public:
    bool canDescribe(const StreamConfig& config) override;
    Result<std::unique_ptr<VideoDecompressor>> make(const StreamConfig& config) override;

    bool isHardware = true;
    std::optional<Failure> failure;  // what `make` gives instead
    int made = 0;
    FakeVideoDecompressor* newest = nullptr;  // valid as long as its owner keeps it
};

}  // namespace velmora
