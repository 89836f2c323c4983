#include "Platform/Linux/Codec/X265Compressor.h"

#include <fmt/format.h>
#include <x265.h>

#include <algorithm>

namespace velmora {
namespace {

constexpr int minSide = 32, maxSide = 8192;
constexpr double heldQuantizer = 18;

void enterRate(x265_param& parameters, std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    const auto kilobits = static_cast<int>(std::clamp<std::int64_t>(bitsPerSecond / 1000, 50, 1'000'000));
    parameters.rc.rateControlMode = X265_RC_CRF;  // quality held, rate limited, as for H.264
    parameters.rc.rfConstant = heldQuantizer;
    parameters.rc.vbvMaxBitrate = kilobits;
    parameters.rc.vbvBufferSize =
        std::max(static_cast<int>(std::int64_t{kilobits} * burst.count() / 1000), 1);
}

void setTuning(x265_param& parameters) {
    parameters.internalCsp = X265_CSP_I420;
    parameters.keyframeMax = -1;
    parameters.scenecutThreshold = 0;
    parameters.bRepeatHeaders = 0;
    parameters.bAnnexB = 0;
    parameters.bEmitInfoSEI = 0;
    parameters.bEnableWavefront = 0;
    parameters.frameNumThreads = 1;
    parameters.numaPools = "none";  // as x265_param_parse would, which leaks its copy
    parameters.logLevel = X265_LOG_NONE;
    x265_param_parse(&parameters, "colorprim", "bt709");
    x265_param_parse(&parameters, "transfer", "bt709");
    x265_param_parse(&parameters, "colormatrix", "bt709");
    x265_param_parse(&parameters, "range", "limited");
}

}  // namespace

X265Compressor::~X265Compressor() {
    if (encoder_) x265_encoder_close(encoder_);
    if (in_) x265_picture_free(in_);
    if (out_) x265_picture_free(out_);
    if (parameters_) x265_param_free(parameters_);
}

Result<std::unique_ptr<VideoCompressor>> X265Compressor::open(const Configuration& configuration) {
    const auto [width, height] = configuration.size;
    if (width % 2 != 0 || height % 2 != 0) {
        return Failure{fmt::format("HEVC needs even sides, not {}x{}", width, height)};
    }
    if (std::min(width, height) < minSide || std::max(width, height) > maxSide) {
        return Failure{
            fmt::format("libx265 takes {} to {} pixels a side, not {}x{}", minSide, maxSide, width, height)};
    }
    std::unique_ptr<X265Compressor> self(new X265Compressor(configuration.size));
    self->parameters_ = x265_param_alloc();
    if (!self->parameters_) return Failure{"libx265: out of memory"};
    auto& parameters = *self->parameters_;
    if (x265_param_default_preset(&parameters, "ultrafast", "zerolatency") != 0) {
        return Failure{"libx265 does not know its own presets"};
    }
    parameters.sourceWidth = width;
    parameters.sourceHeight = height;
    parameters.fpsNum = static_cast<std::uint32_t>(std::clamp(configuration.framesPerSecond, 1, 240));
    parameters.fpsDenom = 1;
    setTuning(parameters);
    enterRate(parameters, configuration.bitsPerSecond, configuration.burst);
    self->encoder_ = x265_encoder_open(&parameters);
    self->in_ = x265_picture_alloc();
    self->out_ = x265_picture_alloc();
    if (!self->encoder_ || !self->in_ || !self->out_) return Failure{"libx265: not opened"};
    x265_picture_init(&parameters, self->in_);
    if (!self->readParameterSets()) return Failure{"libx265: no parameter sets"};
    return std::unique_ptr<VideoCompressor>(std::move(self));
}

bool X265Compressor::readParameterSets() {
    x265_nal* units = nullptr;
    std::uint32_t count = 0;
    if (x265_encoder_headers(encoder_, &units, &count) < 0) return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (units[i].type < NAL_UNIT_VPS || units[i].type > NAL_UNIT_PPS) continue;
        parameterSets_.emplace_back(units[i].payload + 4, units[i].payload + units[i].sizeBytes);
    }
    return parameterSets_.size() == 3;
}

Result<CompressedPicture> X265Compressor::encode(const Picture& picture, const Options& options) {
    if (picture.size != size_) {
        return Failure{fmt::format("a picture of {}x{} for an encoder of {}x{}", picture.size.width,
                                   picture.size.height, size_.width, size_.height)};
    }
    // The library reads the planes and copies them; it never writes to them.
    in_->planes[0] = const_cast<std::uint8_t*>(picture.y);
    in_->planes[1] = const_cast<std::uint8_t*>(picture.u);
    in_->planes[2] = const_cast<std::uint8_t*>(picture.v);
    in_->stride[0] = picture.strideY;
    in_->stride[1] = picture.strideU;
    in_->stride[2] = picture.strideV;
    in_->bitDepth = 8;
    in_->pts = nextTime_;
    in_->sliceType = options.forceKeyframe ? X265_TYPE_IDR : X265_TYPE_AUTO;
    x265_picture_init(parameters_, out_);
    x265_nal* units = nullptr;
    std::uint32_t count = 0;
    if (x265_encoder_encode(encoder_, &units, &count, in_, out_) <= 0 || count == 0) {
        return Failure{"libx265: no picture"};
    }
    ++nextTime_;
    CompressedPicture compressed;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (units[i].type >= NAL_UNIT_VPS && units[i].type <= NAL_UNIT_PPS) continue;
        compressed.data.insert(compressed.data.end(), units[i].payload,
                               units[i].payload + units[i].sizeBytes);
    }
    compressed.isKeyframe = out_->sliceType == X265_TYPE_IDR;
    if (compressed.isKeyframe) compressed.parameterSets = parameterSets_;
    compressed.meanQuantizer = out_->frameData.qp;
    return compressed;
}

}  // namespace velmora
