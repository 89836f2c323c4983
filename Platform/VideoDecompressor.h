#pragma once

#include <memory>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// One decoder for one stream shape: one compressed picture in, one out, at once. Used on one queue.
class VideoDecompressor {
public:
    virtual ~VideoDecompressor() = default;

    /// Decodes length-prefixed NAL units. A failure (also a picture flagged as damaged) means that pictures
    /// cannot be trusted until the next keyframe. `code` is `sessionInvalid` when the decoder itself is lost.
    virtual Result<SharedPicture> decode(ByteView data) = 0;
    static constexpr int sessionInvalid = -12903;

    /// True if `config` needs no new decoder; its parameter sets are then in force from the next keyframe.
    virtual bool accepts(const StreamConfig& config) = 0;
    virtual bool isHardware() const = 0;
};

class VideoDecompressorFactory {
public:
    virtual ~VideoDecompressorFactory() = default;
    /// Whether the parameter sets describe a stream at all (parsed, not merely present).
    virtual bool canDescribe(const StreamConfig& config) = 0;
    virtual Result<std::unique_ptr<VideoDecompressor>> make(const StreamConfig& config) = 0;
};

}  // namespace velmora
