#pragma once

#include <map>
#include <memory>
#include <optional>

#include "Platform/VideoCompressor.h"

namespace velmora {

/// A compressor that really carries pictures, for tests: rows of samples, run-length coded, with fewer bits a
/// sample when the rate is tight. FakeVideoDecompressor reads it and holds it to what a real codec needs: a
/// keyframe first, then every picture in turn.
///
/// A frame is one NAL unit behind its length:
/// 0 kind u8 (0x65 key, 0x41 delta) | 1 number u32 | 5 width u16 | 7 height u16 | 9 check u32 (FNV-1a of the
/// rest) | then parts: plane u8 | row u16 | x u16 | count u16 | shift u8 | runs (length u8, value u8) to
/// count.
class FakeVideoCompressor final : public VideoCompressor {
public:
    struct Behaviour {
        bool isHardware = true;
        bool usesLowLatencyRateControl = true;
        bool changesBitRate = true;
        std::optional<VideoCodec> codec;  // instead of the one asked for
    };
    FakeVideoCompressor(const Configuration& configuration, const Behaviour& behaviour);

    Result<CompressedPicture> encode(const Picture& picture, const Options& options) override;
    bool setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) override;
    VideoCodec codec() const override { return behaviour_.codec.value_or(configuration_.codec); }
    bool isHardware() const override { return behaviour_.isHardware; }
    bool usesLowLatencyRateControl() const override { return behaviour_.usesLowLatencyRateControl; }
    std::string_view name() const override { return "fake"; }

    const Configuration& configuration() const { return configuration_; }

    /// What was asked of it, and what it is to do wrong.
    struct Call {
        bool forceKeyframe = false, refine = false;
        std::vector<PixelRect> damage;
    };
    std::vector<Call> calls;
    int failNext = 0;

private:
    Bytes codeWhole(const Picture& picture, int shift) const;
    Bytes codeDamage(const Picture& picture, std::span<const PixelRect> damage, int shift) const;
    void sharpen(const Picture& picture, Bytes& out, std::size_t budget);
    void noteShift(const PixelRect& rect, int shift);
    std::vector<Bytes> parameterSets() const;
    double largestAllowance() const;

    Configuration configuration_;
    const Behaviour behaviour_;
    std::uint32_t number_ = 0;
    double allowance_;           // bytes that may go out now, as in a leaky bucket of half a second
    std::vector<int> rowShift_;  // how coarse each luma row stands at the viewer
};

/// Makes fakes and remembers the newest, which stays valid as long as its owner keeps it.
class FakeVideoCompressorFactory final : public VideoCompressorFactory {
public:
    Result<std::unique_ptr<VideoCompressor>> make(
        const VideoCompressor::Configuration& configuration) override;

    FakeVideoCompressor::Behaviour behaviour;
    std::optional<Failure> failure;  // what `make` gives instead
    int made = 0;
    FakeVideoCompressor* newest = nullptr;
};

}  // namespace velmora
