#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// One compressed picture: NAL units, each behind its 4-byte big-endian length, no start codes, no parameter
/// sets inside.
struct CompressedPicture {
    Bytes data;
    bool isKeyframe = false;
    /// On keyframes: SPS, PPS (H.264) or VPS, SPS, PPS (HEVC), without length or start code.
    std::optional<std::vector<Bytes>> parameterSets;
    /// How coarse the picture is now: mean quantiser of the coded blocks, 0 (best) to 51; absent if the
    /// encoder does not tell.
    std::optional<double> meanQuantizer;
};

/// One encoder of one fixed size: one picture in, one out, in order, at once. Used on one queue.
class VideoCompressor {
public:
    struct Configuration {
        VideoCodec codec = VideoCodec::h264;
        PixelSize size;  // even
        std::int64_t bitsPerSecond = 20'000'000;
        /// How much of it may come at once, with a keyframe or after a pause: over a path that carries just
        /// this rate a picture takes so long. At least some frame intervals.
        std::chrono::milliseconds burst{500};
        int framesPerSecond = 60;
    };
    struct Options {
        bool forceKeyframe = false;
        /// Where the picture differs from the one before; empty means nowhere (a repeat that only
        /// sharpens). The whole picture if the caller cannot tell.
        std::span<const PixelRect> damage;
        /// Spend bits on blocks outside the damage too: their quality is still to be raised.
        bool refine = false;
        /// Time since the picture before; one frame interval if absent. A rate is bits per second, and
        /// pictures come when something changes: without this an encoder takes 30 a second for half of what
        /// it may use.
        std::optional<std::chrono::microseconds> sinceLast{};
    };

    virtual ~VideoCompressor() = default;

    virtual Result<CompressedPicture> encode(const Picture& picture, const Options& options) = 0;
    /// Takes effect from the next picture. False if the running encoder cannot change: make a new one.
    virtual bool setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) = 0;
    /// The codec really used, which may not be the one asked for.
    virtual VideoCodec codec() const = 0;
    virtual bool isHardware() const = 0;
    virtual bool usesLowLatencyRateControl() const = 0;
    /// Name for logs, such as "libx264".
    virtual std::string_view name() const = 0;
};

class VideoCompressorFactory {
public:
    virtual ~VideoCompressorFactory() = default;
    /// Hardware first where there is a device; fails in words, with the last status tried.
    virtual Result<std::unique_ptr<VideoCompressor>> make(
        const VideoCompressor::Configuration& configuration) = 0;
};

}  // namespace velmora
