#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/VideoDecoding.h"

namespace velmora {

/// Owns the decoder of a connection, makes it when it is needed and again when it is lost. Owned by
/// ViewerConnection; lives on the winning client's queue.
class VideoDecoder {
public:
    /// Takes the picture and the moment it was decoded, in microseconds of the host clock.
    using Output = std::function<void(SharedPicture, std::uint64_t)>;

    /// Both outlive the decoder.
    VideoDecoder(VideoDecompressorFactory& factory, Queue& queue) : factory_(factory), queue_(queue) {}

    /// The stream's new format. The running session stays if it can take it over.
    void setFormat(VideoFormat format);

    /// Runs `onOutput` before it returns if a picture came out. False on failure: pictures cannot be trusted
    /// until the next keyframe.
    bool decode(const VideoSample& sample, const Output& onOutput);

    /// Ends the session; the next picture makes another.
    void invalidate();

    /// Whether the session in use, or the last one, decodes in hardware.
    bool isHardware() const { return isHardware_; }

private:
    void createSession();

    VideoDecompressorFactory& factory_;
    Queue& queue_;
    std::unique_ptr<VideoDecompressor> session_;
    std::optional<VideoFormat> format_;
    bool isHardware_ = false;
};

}  // namespace velmora
