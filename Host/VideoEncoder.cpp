#include "Host/VideoEncoder.h"

#include <utility>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

VideoEncoder::VideoEncoder(VideoCompressorFactory& factory, Queue& captureQueue,
                           const Configuration& configuration, Output onEncoded)
    : factory_(factory),
      captureQueue_(captureQueue),
      configuration_(configuration),
      onEncoded_(std::move(onEncoded)) {}

Result<std::unique_ptr<VideoEncoder>, EncoderError> VideoEncoder::make(VideoCompressorFactory& factory,
                                                                       Queue& captureQueue,
                                                                       const Configuration& configuration,
                                                                       Output onEncoded) {
    std::unique_ptr<VideoEncoder> self(
        new VideoEncoder(factory, captureQueue, configuration, std::move(onEncoded)));
    auto compressor = factory.make(self->compressorConfiguration());
    if (!compressor) return EncoderError::createFailed(compressor.error().code, compressor.error().text);
    self->use(std::move(compressor).value());
    return self;
}

VideoCompressor::Configuration VideoEncoder::compressorConfiguration() const {
    return {.codec = configuration_.codec,
            .size = {configuration_.width, configuration_.height},
            .bitsPerSecond = configuration_.bitrate,
            .burst = configuration_.burst,
            .framesPerSecond = configuration_.fps};
}

void VideoEncoder::use(std::unique_ptr<VideoCompressor> compressor) {
    compressor_ = std::move(compressor);
    codec_ = compressor_->codec();
    usesLowLatencyRateControl_ = compressor_->usesLowLatencyRateControl();
    isHardware_ = compressor_->isHardware();
    requestKeyframe();
}

void VideoEncoder::encode(const Picture& picture, std::uint64_t captureMicros, const Change& change) {
    assertOn(captureQueue_);
    if (!compressor_) return;
    const PixelRect everything{0, 0, configuration_.width, configuration_.height};
    const bool whole = missedDamage_;
    const std::uint64_t requests = keyframeRequests();
    const std::uint64_t submitMicros = captureQueue_.nowMicros();
    std::optional<std::chrono::microseconds> sinceLast;
    if (lastSubmitMicros_) sinceLast = std::chrono::microseconds(submitMicros - *lastSubmitMicros_);
    lastSubmitMicros_ = submitMicros;
    auto compressed = compressor_->encode(
        picture, {.forceKeyframe = keyframeIsDue(),
                  .damage = whole ? std::span<const PixelRect>(&everything, 1) : change.damage,
                  .refine = change.refine,
                  .sinceLast = sinceLast});
    const std::uint64_t encodedMicros = captureQueue_.nowMicros();
    missedDamage_ = !compressed.ok() && (whole || !change.damage.empty());
    if (!compressed) return;
    if (compressed->isKeyframe) keyframeCameOut(requests);
    if (!onEncoded_) return;
    onEncoded_({.data = std::move(compressed->data),
                .isKeyframe = compressed->isKeyframe,
                .captureMicros = captureMicros,
                .submitMicros = submitMicros,
                .encodedMicros = encodedMicros,
                .parameterSets = std::move(compressed->parameterSets),
                .meanQuantizer = compressed->meanQuantizer});
}

void VideoEncoder::requestKeyframe() {
    const std::lock_guard guard(lock_);
    forceKeyframe_ = true;
    ++keyframeRequests_;
}

bool VideoEncoder::keyframeIsDue() const {
    const std::lock_guard guard(lock_);
    return forceKeyframe_;
}

std::uint64_t VideoEncoder::keyframeRequests() const {
    const std::lock_guard guard(lock_);
    return keyframeRequests_;
}

/// A request that came while the keyframe was being made asks for another: its viewer may have lost this one.
void VideoEncoder::keyframeCameOut(std::uint64_t requestsAnswered) {
    const std::lock_guard guard(lock_);
    if (keyframeRequests_ == requestsAnswered) forceKeyframe_ = false;
}

void VideoEncoder::setBitrate(std::int64_t bitrate, std::chrono::milliseconds burst) {
    assertOn(captureQueue_);
    if (!compressor_ || (bitrate == configuration_.bitrate && burst == configuration_.burst)) return;
    const Configuration before = configuration_;
    configuration_.bitrate = bitrate;
    configuration_.burst = burst;
    if (compressor_->setRate(bitrate, burst)) return;
    auto replacement = factory_.make(compressorConfiguration());
    if (!replacement) {
        configuration_ = before;
        hostLog("⚠︎ The encoder's bit rate could not be changed: " + replacement.error().text);
        return;
    }
    use(std::move(replacement).value());
}

void VideoEncoder::retire() {
    assertOn(captureQueue_);
    compressor_.reset();
}

}  // namespace velmora
