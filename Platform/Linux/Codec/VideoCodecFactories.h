#pragma once

#include <memory>

#include "Platform/Linux/Codec/VideoDevices.h"
#include "Platform/VideoCompressor.h"
#include "Platform/VideoDecompressor.h"

namespace velmora {

struct VideoCompressorChoice {
    VideoDevices devices = VideoDevices::find();
    /// HEVC by libx265 where no hardware does it; else such a stream is H.264.
    bool allowSoftwareHevc = false;
};

/// The encoders of this machine: hardware for the codec asked for where a device takes it, then software.
/// When HEVC is asked for and only software could do it, the stream is H.264: the compressor's `codec` says
/// so, and the session tells. May be used from any thread, one at a time.
std::unique_ptr<VideoCompressorFactory> makeVideoCompressorFactory(VideoCompressorChoice choice = {});

/// The decoders of this machine: hardware where a device takes the stream, else software.
std::unique_ptr<VideoDecompressorFactory> makeVideoDecompressorFactory(
    const VideoDevices& devices = VideoDevices::find());

}  // namespace velmora
