#include "Viewer/Session/VideoDecoding.h"

namespace velmora::VideoDecoding {

std::optional<VideoFormat> formatDescription(const StreamConfig& config, VideoDecompressorFactory& factory) {
    if (config.parameterSets.empty() || !factory.canDescribe(config)) return std::nullopt;
    return VideoFormat{config};
}

std::optional<VideoSample> sampleBuffer(ByteView data, const VideoFormat&) {
    constexpr std::size_t maxBytes = 64 * 1024 * 1024;  // an uncompressed picture of 7680x4320 has 50 MB
    if (data.empty() || data.size() > maxBytes) return std::nullopt;
    return VideoSample{data};
}

std::optional<DisplaySample> displaySample(const SharedPicture& picture,
                                           std::shared_ptr<const DisplayFormat>& format) {
    if (!picture || picture->size.width <= 0 || picture->size.height <= 0) return std::nullopt;
    if (!format || format->size != picture->size)
        format = std::make_shared<DisplayFormat>(DisplayFormat{picture->size});
    return DisplaySample{picture, format};
}

}  // namespace velmora::VideoDecoding
