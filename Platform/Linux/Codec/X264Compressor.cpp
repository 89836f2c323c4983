// Choices that look odd, and why:
// - "ultrafast" without a second slice or thread: slices in two threads shorten a picture only while both
// cores
//   are idle, and make the slowest ones slower when they are not.
// - A wide motion search (umh, 64): the preset's small diamond does not find a page that scrolls by 37 rows,
// and
//   codes every screen anew. At 8 Mbit/s that is the difference between a legible page and mush; and since
//   found text needs no coding, it costs no more time.
// - Quality is held (quantiser 16, at which text shows no ringing) and the rate only limited, with a buffer
// of
//   half a second: over any second that is at most one and a half times the rate, which is what the stream
//   promises. Holding the average instead makes the encoder pay for a burst of scrolling long after it has
//   ended, when the picture should be getting sharp, and spend twice the bytes and time on still screens.
// - Keyframes start coarser (24): a quarter fewer bytes until there is a picture at all, and the next picture
// makes
//   up for it. Not while the rate is short: a quantiser that is set forgoes the even spread over the picture
//   that the rate control plans by itself.
// - Scene cuts stay off: scrolling looks like one, and each would be a keyframe.
// - Blocks outside the damage are declared constant. The library then skips their motion search unless the
//   picture's quantiser is finer than what they were coded with, so still areas go on getting sharper.
#include "Platform/Linux/Codec/X264Compressor.h"

#include <fmt/format.h>
#include <x264.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace velmora {
namespace {

constexpr int minSide = 16, maxSide = 16384;
constexpr int heldQuantizer = 16;
constexpr int keyframeQuantizer = 24;
constexpr int motionRange = 64;

int framesPerSecond(const VideoCompressor::Configuration& configuration) {
    return std::clamp(configuration.framesPerSecond, 1, 240);
}

void enterRate(x264_param_t& parameters, std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    const auto kilobits = static_cast<int>(std::clamp<std::int64_t>(bitsPerSecond / 1000, 50, 1'000'000));
    parameters.rc.i_vbv_max_bitrate = kilobits;
    parameters.rc.i_vbv_buffer_size =
        std::max(static_cast<int>(std::int64_t{kilobits} * burst.count() / 1000), 1);
}

void setColour(x264_param_t& parameters) {
    parameters.vui.i_colorprim = 1;  // BT.709, thrice
    parameters.vui.i_transfer = 1;
    parameters.vui.i_colmatrix = 1;
    parameters.vui.b_fullrange = 0;
}

}  // namespace

X264Compressor::X264Compressor(const Configuration& configuration)
    : size_(configuration.size),
      interval_(1.0 / framesPerSecond(configuration)),
      bitsPerSecond_(configuration.bitsPerSecond),
      burst_(configuration.burst),
      quality_(size_) {}

X264Compressor::~X264Compressor() {
    if (encoder_) x264_encoder_close(encoder_);
}

Result<std::unique_ptr<VideoCompressor>> X264Compressor::open(const Configuration& configuration) {
    const auto [width, height] = configuration.size;
    if (width % 2 != 0 || height % 2 != 0) {
        return Failure{fmt::format("H.264 needs even sides, not {}x{}", width, height)};
    }
    if (std::min(width, height) < minSide || std::max(width, height) > maxSide) {
        return Failure{
            fmt::format("libx264 takes {} to {} pixels a side, not {}x{}", minSide, maxSide, width, height)};
    }
    std::unique_ptr<X264Compressor> self(new X264Compressor(configuration));
    x264_param_t parameters;
    if (x264_param_default_preset(&parameters, "ultrafast", "zerolatency") != 0) {
        return Failure{"libx264 does not know its own presets"};
    }
    parameters.pf_log = note;
    parameters.p_log_private = self.get();
    parameters.i_log_level = X264_LOG_WARNING;
    parameters.i_width = width;
    parameters.i_height = height;
    parameters.i_csp = X264_CSP_I420;
    parameters.i_fps_num = static_cast<std::uint32_t>(framesPerSecond(configuration));
    parameters.i_fps_den = 1;
    parameters.b_vfr_input = 0;
    parameters.i_threads = 1;
    parameters.b_sliced_threads = 0;
    parameters.i_keyint_max = X264_KEYINT_MAX_INFINITE;
    parameters.i_scenecut_threshold = 0;
    parameters.b_repeat_headers = 0;
    parameters.b_annexb = 0;
    parameters.analyse.i_me_method = X264_ME_UMH;
    parameters.analyse.i_me_range = motionRange;
    parameters.rc.i_rc_method = X264_RC_CRF;
    parameters.rc.f_rf_constant = heldQuantizer;
    parameters.rc.f_qcompress = 1;  // the same quantiser however busy the picture
    parameters.rc.f_ip_factor = 1;
    parameters.analyse.b_mb_info = 1;
    enterRate(parameters, configuration.bitsPerSecond, configuration.burst);
    setColour(parameters);
    if (x264_param_apply_profile(&parameters, "high") != 0) return self->failure("profile refused");
    self->encoder_ = x264_encoder_open(&parameters);
    if (!self->encoder_) return self->failure("not opened");
    if (!self->readParameterSets()) return self->failure("no parameter sets");
    return std::unique_ptr<VideoCompressor>(std::move(self));
}

/// SPS and PPS; the third unit is the library's advertisement of itself.
bool X264Compressor::readParameterSets() {
    x264_nal_t* units = nullptr;
    int count = 0;
    if (x264_encoder_headers(encoder_, &units, &count) < 0) return false;
    for (int i = 0; i < count; ++i) {
        const x264_nal_t& unit = units[i];
        if (unit.i_type != NAL_SPS && unit.i_type != NAL_PPS) continue;
        parameterSets_.emplace_back(unit.p_payload + 4, unit.p_payload + unit.i_payload);
    }
    return parameterSets_.size() == 2;
}

Result<CompressedPicture> X264Compressor::encode(const Picture& picture, const Options& options) {
    if (picture.size != size_) {
        return Failure{fmt::format("a picture of {}x{} for an encoder of {}x{}", picture.size.width,
                                   picture.size.height, size_.width, size_.height)};
    }
    const bool makesKeyframe = options.forceKeyframe || nextTime_ == 0;
    const bool whole = makesKeyframe || options.refine;
    x264_picture_t in, out;
    x264_picture_init(&in);
    in.i_type = makesKeyframe ? X264_TYPE_IDR : X264_TYPE_AUTO;
    if (makesKeyframe && hasRateToSpare()) in.i_qpplus1 = keyframeQuantizer + 1;
    in.i_pts = nextTime_;
    in.i_pic_struct = pictureStructure(options);
    in.img.i_csp = X264_CSP_I420;
    in.img.i_plane = 3;
    // The library reads the planes and copies them into its own frame; it never writes to them.
    in.img.plane[0] = const_cast<std::uint8_t*>(picture.y);
    in.img.plane[1] = const_cast<std::uint8_t*>(picture.u);
    in.img.plane[2] = const_cast<std::uint8_t*>(picture.v);
    in.img.i_stride[0] = picture.strideY;
    in.img.i_stride[1] = picture.strideU;
    in.img.i_stride[2] = picture.strideV;
    quality_.markDamage(options.damage, X264_MBINFO_CONSTANT);
    if (!whole) in.prop.mb_info = quality_.marks();

    x264_nal_t* units = nullptr;
    int count = 0;
    const int length = x264_encoder_encode(encoder_, &units, &count, &in, &out);
    if (length <= 0 || count <= 0) return failure("no picture");
    ++nextTime_;
    CompressedPicture compressed;
    compressed.data.assign(units[0].p_payload, units[0].p_payload + length);
    compressed.isKeyframe = out.b_keyframe != 0;
    if (compressed.isKeyframe) compressed.parameterSets = parameterSets_;
    // With one quantiser held for every picture, the "average CRF" is the quantiser really used, averaged
    // over the picture; the one in i_qpplus1 is only the plan.
    lastQuantizer_ = out.prop.f_crf_avg;
    quality_.record(lastQuantizer_, compressed.isKeyframe);
    compressed.meanQuantizer = quality_.mean();
    return compressed;
}

/// The library's bucket of bits fills by the picture, not by the clock. A picture may be said to stand for
/// two or three intervals, though, as in pulled-down film; nothing of that is written into the stream. A
/// pause is made up for over the next few pictures, up to what the bucket holds.
int X264Compressor::pictureStructure(const Options& options) {
    const double bucket = burst_ / interval_;
    owedIntervals_ += options.sinceLast ? std::chrono::duration<double>(*options.sinceLast) / interval_ : 1.0;
    const double told = std::clamp(std::round(owedIntervals_), 1.0, 3.0);
    owedIntervals_ = std::clamp(owedIntervals_ - told, -1.0, bucket);
    return told == 1 ? PIC_STRUCT_PROGRESSIVE : told == 2 ? PIC_STRUCT_DOUBLE : PIC_STRUCT_TRIPLE;
}

bool X264Compressor::hasRateToSpare() const {
    if (nextTime_ > 0) return lastQuantizer_ <= keyframeQuantizer;
    // A page of dense text takes two and a half bits a pixel.
    return bitsPerSecond_ * burst_.count() / 1000 >= std::int64_t{size_.width} * size_.height * 4;
}

bool X264Compressor::setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    bitsPerSecond_ = bitsPerSecond;
    burst_ = burst;
    x264_param_t parameters;
    x264_encoder_parameters(encoder_, &parameters);
    enterRate(parameters, bitsPerSecond, burst);
    return x264_encoder_reconfig(encoder_, &parameters) == 0;
}

void X264Compressor::note(void* self, int, const char* format, std::va_list arguments) {
    char line[256];
    std::vsnprintf(line, sizeof line, format, arguments);
    auto& text = static_cast<X264Compressor*>(self)->complaint_;
    text = line;
    while (!text.empty() && text.back() == '\n') text.pop_back();
}

Failure X264Compressor::failure(std::string_view what) const {
    return Failure{complaint_.empty() ? fmt::format("libx264: {}", what)
                                      : fmt::format("libx264: {} ({})", what, complaint_)};
}

}  // namespace velmora
