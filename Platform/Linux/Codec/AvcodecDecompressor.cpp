#include "Platform/Linux/Codec/AvcodecDecompressor.h"

#include <fmt/format.h>
#include <libyuv.h>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <array>
#include <cstring>

#include "Platform/Linux/Codec/NalUnits.h"
#include "Platform/Linux/Codec/ParameterSets.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

constexpr std::size_t maxFrameBytes = 256 * 1024 * 1024;

/// What the library may be given, in the form it takes; or why not.
Result<Bytes> configurationFor(const StreamConfig& config, const AvcodecDecompressor::Parameters& limits) {
    const auto shape = describeParameterSets(config.codec, config.parameterSets);
    if (!shape) return shape.error();
    if (shape->chromaFormat != 1 || shape->bitDepth != 8) {
        return Failure{
            fmt::format("only 4:2:0 pictures of 8 bits can be shown; these have chroma format {} and {} bits",
                        shape->chromaFormat, shape->bitDepth)};
    }
    const auto [width, height] = shape->coded;
    if (std::max(width, height) > limits.maxSide || std::int64_t{width} * height > limits.maxPixels) {
        return Failure{fmt::format("a picture of {}x{} is too large", width, height)};
    }
    return decoderConfiguration(config.codec, config.parameterSets, *shape);
}

/// Full-range pictures into our limited range (BT.709, 8 bits).
SharedPicture limitedRange(const AVFrame& frame) {
    static const auto tables = [] {
        std::array<std::array<std::uint8_t, 256>, 2> made{};
        for (int i = 0; i < 256; ++i) {
            made[0][static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(16 + (i * 219 + 127) / 255);
            made[1][static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(16 + (i * 224 + 127) / 255);
        }
        return made;
    }();
    auto buffer = std::make_shared<PictureBuffer>(PixelSize{frame.width, frame.height});
    const auto map = [&](int plane, std::uint8_t* to, int stride, int width, int height) {
        const auto& table = tables[plane == 0 ? 0 : 1];
        for (int row = 0; row < height; ++row) {
            const std::uint8_t* from = frame.data[plane] + std::ptrdiff_t{row} * frame.linesize[plane];
            std::transform(from, from + width, to + std::ptrdiff_t{row} * stride,
                           [&](std::uint8_t value) { return table[value]; });
        }
    };
    const int halfWidth = (frame.width + 1) / 2, halfHeight = (frame.height + 1) / 2;
    map(0, buffer->y, buffer->strideY, frame.width, frame.height);
    map(1, buffer->u, buffer->strideUV, halfWidth, halfHeight);
    map(2, buffer->v, buffer->strideUV, halfWidth, halfHeight);
    return PictureBuffer::view(buffer);
}

SharedPicture fromNv12(const AVFrame& frame) {
    auto buffer = std::make_shared<PictureBuffer>(PixelSize{frame.width, frame.height});
    libyuv::NV12ToI420(frame.data[0], frame.linesize[0], frame.data[1], frame.linesize[1], buffer->y,
                       buffer->strideY, buffer->u, buffer->strideUV, buffer->v, buffer->strideUV, frame.width,
                       frame.height);
    return PictureBuffer::view(buffer);
}

/// The decoder's own memory, kept until the last holder lets go; the decoder may be gone by then.
SharedPicture sharing(AvFramePtr frame) {
    auto picture = std::make_shared<Picture>(Picture{.size = {frame->width, frame->height},
                                                     .y = frame->data[0],
                                                     .u = frame->data[1],
                                                     .v = frame->data[2],
                                                     .strideY = frame->linesize[0],
                                                     .strideU = frame->linesize[1],
                                                     .strideV = frame->linesize[2]});
    picture->storage = std::shared_ptr<AVFrame>(frame.release(), AvDeleter{});
    return picture;
}

}  // namespace

Result<std::unique_ptr<VideoDecompressor>> AvcodecDecompressor::open(const StreamConfig& config,
                                                                     const Parameters& parameters) {
    quietenLibavcodec();
    std::unique_ptr<AvcodecDecompressor> self(new AvcodecDecompressor(config.codec, parameters));
    for (const std::string& device : parameters.devices) {
        if (self->openContext(config, &device).ok())
            return std::unique_ptr<VideoDecompressor>(std::move(self));
    }
    if (const Status opened = self->openContext(config, nullptr); !opened) return opened.error();
    return std::unique_ptr<VideoDecompressor>(std::move(self));
}

/// In software if `device` is null.
Status AvcodecDecompressor::openContext(const StreamConfig& config, const std::string* device) {
    auto configuration = configurationFor(config, parameters_);
    if (!configuration) return configuration.error();
    const AVCodec* codec =
        avcodec_find_decoder(codec_ == VideoCodec::h264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    if (!codec) return Failure{"libavcodec has no decoder for this stream"};
    AvContextPtr context(avcodec_alloc_context3(codec));
    packet_.reset(av_packet_alloc());
    if (!context || !packet_) return Failure{"out of memory"};
    context->thread_type = FF_THREAD_SLICE;
    context->thread_count = parameters_.threads;
    context->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context->err_recognition = AV_EF_CRCCHECK | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_EXPLODE;
    context->max_pixels = parameters_.maxPixels;
    context->opaque = this;
    context->extradata =
        static_cast<std::uint8_t*>(av_mallocz(configuration->size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!context->extradata) return Failure{"out of memory"};
    std::memcpy(context->extradata, configuration->data(), configuration->size());
    context->extradata_size = static_cast<int>(configuration->size());
    isHardware_ = false;
    if (device) {
        AVBufferRef* made = nullptr;
        const int code = av_hwdevice_ctx_create(&made, AV_HWDEVICE_TYPE_VAAPI, device->c_str(), nullptr, 0);
        if (code < 0) return Failure{fmt::format("{}: {}", *device, avErrorText(code)), code};
        context->hw_device_ctx = made;
        context->get_format = chooseFormat;
        isHardware_ = true;
    }
    if (const int code = avcodec_open2(context.get(), codec, nullptr); code < 0) {
        return Failure{fmt::format("libavcodec refuses the parameter sets: {}", avErrorText(code)), code};
    }
    context_ = std::move(context);
    parameterSets_ = config.parameterSets;
    nextConfiguration_.reset();
    awaitsKeyframe_ = true;
    return Done{};
}

/// The library asks at the first picture and at each change of shape. A stream the device cannot take goes on
/// in software, and says so.
AVPixelFormat AvcodecDecompressor::chooseFormat(AVCodecContext* context, const AVPixelFormat* offered) {
    auto* self = static_cast<AvcodecDecompressor*>(context->opaque);
    for (const AVPixelFormat* format = offered; *format != AV_PIX_FMT_NONE; ++format) {
        if (*format == AV_PIX_FMT_VAAPI) {
            self->isHardware_ = true;
            return *format;
        }
    }
    self->isHardware_ = false;
    return avcodec_default_get_format(context, offered);
}

bool AvcodecDecompressor::accepts(const StreamConfig& config) {
    if (config.codec != codec_) return false;
    if (config.parameterSets == parameterSets_) return true;
    auto configuration = configurationFor(config, parameters_);
    if (!configuration) return false;
    nextConfiguration_ = *std::move(configuration);
    parameterSets_ = config.parameterSets;
    return true;
}

Result<SharedPicture> AvcodecDecompressor::decode(ByteView data) {
    bool hasPicture = false, keyframe = false;
    const bool isWhole = data.size() <= maxFrameBytes && forEachLengthPrefixed(data, [&](ByteView nal) {
                             const NalKind kind = nalKind(codec_, nal);
                             keyframe = keyframe || kind == NalKind::keyPicture;
                             hasPicture =
                                 hasPicture || kind == NalKind::keyPicture || kind == NalKind::picture;
                         });
    if (!isWhole) return fail("a frame whose lengths do not add up");
    if (!hasPicture) return fail("a frame without a picture");
    if (awaitsKeyframe_ && !keyframe) return fail("no keyframe yet");
    if (const Status sent = send(data, keyframe); !sent) return sent.error();
    auto picture = receive();
    if (picture) awaitsKeyframe_ = false;
    return picture;
}

Status AvcodecDecompressor::send(ByteView data, bool keyframe) {
    if (av_new_packet(packet_.get(), static_cast<int>(data.size())) < 0) return fail("out of memory");
    std::memcpy(packet_->data, data.data(), data.size());
    const bool changesConfiguration = keyframe && nextConfiguration_;
    if (changesConfiguration) {
        auto* side =
            av_packet_new_side_data(packet_.get(), AV_PKT_DATA_NEW_EXTRADATA, nextConfiguration_->size());
        if (!side) {
            av_packet_unref(packet_.get());
            return fail("out of memory");
        }
        std::memcpy(side, nextConfiguration_->data(), nextConfiguration_->size());
        nextConfiguration_.reset();
    }
    const int code = avcodec_send_packet(context_.get(), packet_.get());
    av_packet_unref(packet_.get());
    if (code < 0) {
        // Which parameter sets are in force now nobody knows: a new decoder is surer than another keyframe.
        const Failure failure = fail(avErrorText(code), code);
        return changesConfiguration ? Failure{failure.text, sessionInvalid} : failure;
    }
    return Done{};
}

/// The picture of the packet just sent. Were there several in it, the last one counts.
Result<SharedPicture> AvcodecDecompressor::receive() {
    AvFramePtr newest;
    for (;;) {
        AvFramePtr frame(av_frame_alloc());
        if (!frame) return fail("out of memory");
        const int code = avcodec_receive_frame(context_.get(), frame.get());
        if (code == AVERROR(EAGAIN)) break;
        if (code < 0) return fail(avErrorText(code), code);
        if (frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
            return fail("a damaged picture");
        }
        newest = std::move(frame);
    }
    if (!newest) return fail("no picture came out");
    return pictureOf(std::move(newest));
}

Result<SharedPicture> AvcodecDecompressor::pictureOf(AvFramePtr frame) {
    if (frame->format == AV_PIX_FMT_VAAPI) {
        AvFramePtr fetched(av_frame_alloc());
        const int code = fetched ? av_hwframe_transfer_data(fetched.get(), frame.get(), 0) : AVERROR(ENOMEM);
        if (code < 0) return fail(avErrorText(code), code);
        fetched->width = frame->width;
        fetched->height = frame->height;
        frame = std::move(fetched);
    }
    const bool fullRange = frame->format == AV_PIX_FMT_YUVJ420P || frame->color_range == AVCOL_RANGE_JPEG;
    switch (frame->format) {
        case AV_PIX_FMT_YUVJ420P:
        case AV_PIX_FMT_YUV420P:
            return fullRange ? limitedRange(*frame) : sharing(std::move(frame));
        case AV_PIX_FMT_NV12:
            return fromNv12(*frame);
    }
    if (refusedFormat_ != frame->format) {
        refusedFormat_ = frame->format;
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame->format));
        debugLog(fmt::format("⚠︎ The stream's pictures are {}; only 4:2:0 of 8 bits can be shown",
                             name ? name : "of no known form"));
    }
    return fail("a picture form that cannot be shown");
}

/// After a failure nothing decoded from the same references could be trusted, so they go.
Failure AvcodecDecompressor::fail(std::string text, int code) {
    if (!awaitsKeyframe_) avcodec_flush_buffers(context_.get());
    awaitsKeyframe_ = true;
    const bool deviceLost = isHardware_ && (code == AVERROR_EXTERNAL || code == AVERROR(EIO));
    return Failure{std::move(text), deviceLost ? sessionInvalid : code};
}

bool AvcodecDecompressorFactory::canDescribe(const StreamConfig& config) {
    auto softwareOnly = parameters_;
    softwareOnly.devices.clear();
    softwareOnly.threads = 1;
    const auto opened = AvcodecDecompressor::open(config, softwareOnly);
    if (!opened) debugLog(fmt::format("⚠︎ The stream cannot be described: {}", opened.error().text));
    return opened.ok();
}

Result<std::unique_ptr<VideoDecompressor>> AvcodecDecompressorFactory::make(const StreamConfig& config) {
    return AvcodecDecompressor::open(config, parameters_);
}

}  // namespace velmora
