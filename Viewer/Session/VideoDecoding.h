#pragma once

#include <memory>
#include <optional>

#include "Platform/Picture.h"
#include "Platform/VideoDecompressor.h"

namespace velmora {

/// A stream that can be decoded: its parameter sets have been read and found good.
struct VideoFormat {
    StreamConfig config;
};

/// The bytes of one picture, borrowed from the message they came in.
struct VideoSample {
    ByteView data;
};

/// What all pictures of one shape share; made once per shape, so that equal pointers mean an equal shape.
struct DisplayFormat {
    PixelSize size;
};

/// A decoded picture ready to be shown, at once: it has no time of its own.
struct DisplaySample {
    SharedPicture picture;
    std::shared_ptr<const DisplayFormat> format;
};

/// The steps between the wire, the decoder and the window. No state.
namespace VideoDecoding {

/// None if there are no parameter sets, or they describe no stream that can be shown.
std::optional<VideoFormat> formatDescription(const StreamConfig& config, VideoDecompressorFactory& factory);

/// None if there is nothing in it, or more than any picture can have.
std::optional<VideoSample> sampleBuffer(ByteView data, const VideoFormat& format);

/// `format` is kept while it fits the picture, else made anew. None without a picture.
std::optional<DisplaySample> displaySample(const SharedPicture& picture,
                                           std::shared_ptr<const DisplayFormat>& format);

}  // namespace VideoDecoding
}  // namespace velmora
