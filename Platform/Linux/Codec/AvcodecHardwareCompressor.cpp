#include "Platform/Linux/Codec/AvcodecHardwareCompressor.h"

#include <fmt/format.h>
#include <libyuv.h>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <utility>

#include "Platform/Linux/Codec/NalUnits.h"

namespace velmora {
namespace {

using Interface = AvcodecHardwareCompressor::Interface;

std::string libraryName(VideoCodec codec, Interface interface) {
    const char* suffix = interface == Interface::vaapi   ? "vaapi"
                         : interface == Interface::nvenc ? "nvenc"
                                                         : "qsv";
    return fmt::format("{}_{}", codec == VideoCodec::h264 ? "h264" : "hevc", suffix);
}

using Settings = std::vector<std::pair<const char*, const char*>>;

Settings settingsFor(Interface interface, bool lowLatency) {
    switch (interface) {
        case Interface::vaapi: {
            Settings settings{{"async_depth", "1"}, {"rc_mode", "CBR"}};
            if (lowLatency) settings.emplace_back("low_power", "1");
            return settings;
        }
        case Interface::nvenc: {
            Settings settings{{"rc", "cbr"}, {"forced-idr", "1"}, {"delay", "0"}, {"surfaces", "1"}};
            if (lowLatency)
                settings.insert(settings.end(), {{"preset", "p2"}, {"tune", "ull"}, {"zerolatency", "1"}});
            return settings;
        }
        case Interface::quickSync: {
            Settings settings{{"async_depth", "1"}, {"forced_idr", "1"}};
            if (lowLatency) settings.insert(settings.end(), {{"preset", "veryfast"}, {"low_delay_brc", "1"}});
            return settings;
        }
    }
    return {};
}

void enterRate(AVCodecContext& context, std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    context.bit_rate = bitsPerSecond;
    context.rc_max_rate = bitsPerSecond;
    context.rc_buffer_size =
        static_cast<int>(std::min<std::int64_t>(bitsPerSecond * burst.count() / 1000, INT32_MAX));
}

Failure failure(const std::string& name, std::string_view what, int code) {
    return Failure{fmt::format("{}: {}: {}", name, what, avErrorText(code)), code};
}

}  // namespace

Result<std::unique_ptr<VideoCompressor>> AvcodecHardwareCompressor::open(Interface interface,
                                                                         const std::string& device,
                                                                         const Configuration& configuration) {
    if (configuration.size.width % 2 != 0 || configuration.size.height % 2 != 0) {
        return Failure{"video needs even sides"};
    }
    quietenLibavcodec();
    std::unique_ptr<AvcodecHardwareCompressor> self(
        new AvcodecHardwareCompressor(interface, configuration, libraryName(configuration.codec, interface)));
    Status opened = self->openContext(device, configuration, Mode::lowLatency);
    self->lowLatency_ = opened.ok();
    if (!opened) opened = self->openContext(device, configuration, Mode::plain);
    if (!opened) return opened.error();
    return std::unique_ptr<VideoCompressor>(std::move(self));
}

Status AvcodecHardwareCompressor::openContext(const std::string& device, const Configuration& configuration,
                                              Mode mode) {
    const AVCodec* encoder = avcodec_find_encoder_by_name(name_.c_str());
    if (!encoder) return Failure{fmt::format("{}: not in this libavcodec", name_)};
    context_.reset(avcodec_alloc_context3(encoder));
    packet_.reset(av_packet_alloc());
    if (!context_ || !packet_) return Failure{"out of memory"};
    context_->width = size_.width;
    context_->height = size_.height;
    context_->time_base = {1, configuration.framesPerSecond};
    context_->framerate = {configuration.framesPerSecond, 1};
    context_->gop_size = INT32_MAX / 2;  // keyframes come when they are asked for
    context_->max_b_frames = 0;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context_->color_primaries = AVCOL_PRI_BT709;
    context_->color_trc = AVCOL_TRC_BT709;
    context_->colorspace = AVCOL_SPC_BT709;
    context_->color_range = AVCOL_RANGE_MPEG;
    context_->pix_fmt = AV_PIX_FMT_NV12;
    enterRate(*context_, configuration.bitsPerSecond, configuration.burst);
    for (const auto& [key, value] : settingsFor(interface_, mode == Mode::lowLatency)) {
        const int code = av_opt_set(context_->priv_data, key, value, 0);
        if (code < 0 && mode == Mode::lowLatency) return failure(name_, key, code);
    }
    if (interface_ != Interface::nvenc) {
        if (const Status attached = attachDevice(device); !attached) return attached.error();
    }
    const int code = avcodec_open2(context_.get(), encoder, nullptr);
    if (code < 0) return failure(name_, "not opened", code);
    return Done{};
}

Status AvcodecHardwareCompressor::attachDevice(const std::string& device) {
    const bool isVaapi = interface_ == Interface::vaapi;
    AVBufferRef* made = nullptr;
    int code = av_hwdevice_ctx_create(&made, isVaapi ? AV_HWDEVICE_TYPE_VAAPI : AV_HWDEVICE_TYPE_QSV,
                                      device.c_str(), nullptr, 0);
    if (code < 0) return failure(name_, device, code);
    device_.reset(made);
    AvBufferPtr frames(av_hwframe_ctx_alloc(device_.get()));
    if (!frames) return Failure{"out of memory"};
    auto* description = reinterpret_cast<AVHWFramesContext*>(frames->data);
    description->format = isVaapi ? AV_PIX_FMT_VAAPI : AV_PIX_FMT_QSV;
    description->sw_format = AV_PIX_FMT_NV12;
    description->width = size_.width;
    description->height = size_.height;
    description->initial_pool_size = 4;
    code = av_hwframe_ctx_init(frames.get());
    if (code < 0) return failure(name_, "no frames on the device", code);
    context_->pix_fmt = description->format;
    context_->hw_frames_ctx = frames.release();
    return Done{};
}

/// The picture as the encoder takes it: NV12, on the device where it has one.
Result<AvFramePtr> AvcodecHardwareCompressor::upload(const Picture& picture) {
    AvFramePtr frame(av_frame_alloc());
    if (!frame) return Failure{"out of memory"};
    frame->format = AV_PIX_FMT_NV12;
    frame->width = size_.width;
    frame->height = size_.height;
    int code = av_frame_get_buffer(frame.get(), 0);
    if (code < 0) return failure(name_, "no frame", code);
    libyuv::I420ToNV12(picture.y, picture.strideY, picture.u, picture.strideU, picture.v, picture.strideV,
                       frame->data[0], frame->linesize[0], frame->data[1], frame->linesize[1], size_.width,
                       size_.height);
    if (!context_->hw_frames_ctx) return frame;
    AvFramePtr onDevice(av_frame_alloc());
    if (!onDevice) return Failure{"out of memory"};
    code = av_hwframe_get_buffer(context_->hw_frames_ctx, onDevice.get(), 0);
    if (code >= 0) code = av_hwframe_transfer_data(onDevice.get(), frame.get(), 0);
    if (code < 0) return failure(name_, "no frame on the device", code);
    return onDevice;
}

Result<CompressedPicture> AvcodecHardwareCompressor::encode(const Picture& picture, const Options& options) {
    if (picture.size != size_) return Failure{"a picture of another size"};
    auto frame = upload(picture);
    if (!frame) return frame.error();
    (*frame)->pts = nextTime_++;
    (*frame)->pict_type = options.forceKeyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    const int code = avcodec_send_frame(context_.get(), frame->get());
    if (code < 0) return failure(name_, "a picture was refused", code);
    return takePacket();
}

Result<CompressedPicture> AvcodecHardwareCompressor::takePacket() {
    const int code = avcodec_receive_packet(context_.get(), packet_.get());
    if (code == AVERROR(EAGAIN)) return Failure{fmt::format("{} holds pictures back", name_), code};
    if (code < 0) return failure(name_, "no picture", code);
    auto compressed = rewriteAnnexB(codec_, {packet_->data, static_cast<std::size_t>(packet_->size)});
    av_packet_unref(packet_.get());
    if (!compressed) return Failure{fmt::format("{} gave no picture", name_)};
    if (compressed->parameterSets) parameterSets_ = *compressed->parameterSets;
    if (!compressed->isKeyframe) return *std::move(compressed);
    if (parameterSets_.empty())
        return Failure{fmt::format("{} gave a keyframe without parameter sets", name_)};
    compressed->parameterSets = parameterSets_;
    return *std::move(compressed);
}

bool AvcodecHardwareCompressor::setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    if (interface_ != Interface::nvenc) return false;
    enterRate(*context_, bitsPerSecond, burst);
    return true;
}

}  // namespace velmora
