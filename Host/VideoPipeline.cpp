#include "Host/VideoPipeline.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace velmora {

namespace {

/// A preference may hold any number; a rate outside this range is nothing that an encoder knows.
std::int64_t bitsOf(std::int64_t mbps) {
    return std::clamp<std::int64_t>(mbps, 1, 1'000) * 1'000'000;
}

}  // namespace

VideoPipeline::VideoPipeline(Services services, const ServerSettings& settings)
    : VideoPipeline(std::move(services), settings, Parameters()) {}

VideoPipeline::VideoPipeline(Services services, const ServerSettings& settings, Parameters parameters)
    : services_(std::move(services)),
      parameters_(parameters),
      settings_(settings),
      queue_(services_.capture),
      sender_(*services_.sender),
      rate_(bitsOf(settings.bitrateMbps)) {}

VideoPipeline::~VideoPipeline() = default;

// Encoder and capture

Result<VideoPipeline::EncoderInfo> VideoPipeline::replaceEncoder(PixelSize size, bool isDynamic) {
    assertOn(queue_);
    appliedRate_ = encoderRate();
    auto made =
        VideoEncoder::make(services_.compressors, queue_,
                           {.width = size.width,
                            .height = size.height,
                            .codec = settings_.codec,
                            .bitrate = appliedRate_,
                            .burst = appliedNarrow_ ? parameters_.burstOnNarrowPath : parameters_.burst,
                            .fps = ServerSettings::fps},
                           [this](const EncodedFrame& frame) { handleEncoded(frame); });
    if (!made) return Failure{made.error().text, made.error().status};
    encoder_ = std::move(made).value();
    encoderSize_ = size;
    isDynamic_ = isDynamic;
    forgetPicture();
    if (capture_) capture_->captureWhole();
    return EncoderInfo{.codec = encoder_->codec(),
                       .usesLowLatencyRateControl = encoder_->usesLowLatencyRateControl(),
                       .mbps = allowedMbps(settings_, viewerMaxMbps_)};
}

void VideoPipeline::startCapture(DisplayId display, Completion completion) {
    assertOn(queue_);
    forgetPicture();
    capture_ = services_.captures.make(queue_);
    capture_->admit = [this] { return admit(); };
    capture_->onSample = [this](const ScreenSample& sample) { handleSample(sample); };
    capture_->onStopped = [this](const Failure& failure) {
        forgetPicture();
        if (const auto notify = onStopped) notify(failure);
    };
    capture_->start({.display = display, .size = *encoderSize_, .framesPerSecond = ServerSettings::fps},
                    std::move(completion));
}

void VideoPipeline::updateCapture(DisplayId display, PixelSize size, Completion completion) {
    assertOn(queue_);
    if (!capture_) {
        completion(Failure{"Nothing is being captured"});
        return;
    }
    forgetPicture();
    capture_->update({.display = display, .size = size, .framesPerSecond = ServerSettings::fps},
                     std::move(completion));
}

void VideoPipeline::stopCapture(Queue::Block completion) {
    assertOn(queue_);
    forgetPicture();
    captureWaits_ = false;
    endHoldingBack(queue_.now());
    if (!capture_) {
        completion();
        return;
    }
    // It lives until it has told that it ended, whatever becomes of us, and does not die in its own call.
    std::shared_ptr<ScreenCapture> ending = std::move(capture_);
    ending->admit = nullptr;
    ending->onSample = nullptr;
    ending->onStopped = nullptr;
    ending->stop([ending, &queue = queue_, completion = std::move(completion)](const Status&) mutable {
        queue.post([ending = std::move(ending)] {});
        completion();
    });
}

void VideoPipeline::retire(Queue::Block completion) {
    if (encoder_) encoder_->retire();
    encoder_.reset();
    encoderSize_.reset();
    rateTimer_.reset();
    copyTimer_.reset();
    gateTimer_.reset();
    onStopped = nullptr;
    stopCapture(std::move(completion));
}

void VideoPipeline::forgetPicture() {
    lastPicture_.reset();
    repeats_.forgetPicture();
    repeatTimer_.reset();
    repeatWaits_ = false;
}

// Back-pressure

BackPressure::Load VideoPipeline::load() const {
    BackPressure::Load load = sender_.load();
    const auto ownTrip = rate_.leastRtt();
    const auto path = sender_.pathStatistics();
    if (path && ownTrip > ownTrip.zero() && !sender_.sharesPath()) {
        load.pathDelay = std::max(path->latestRtt - ownTrip, std::chrono::microseconds::zero());
        const auto held = static_cast<std::uint64_t>(static_cast<double>(rate_.bitsPerSecond()) / 8 *
                                                     std::chrono::duration<double>(ownTrip).count());
        load.pathBytes = path->bytesInFlight - std::min(path->bytesInFlight, held);
        // Where the setting is the limit the path may carry far more.
        if (pathSetsRate()) {
            load.pathTime = std::chrono::microseconds(static_cast<std::int64_t>(load.pathBytes) * 8'000'000 /
                                                      rate_.bitsPerSecond());
        }
    }
    return load;
}

ScreenCapture::Admission VideoPipeline::admit() {
    const BackPressure::Load load = this->load();
    worstAge_ = std::max(worstAge_, load.flowAge);
    switch (backPressure_.judge(load, queue_.now())) {
        case BackPressure::Verdict::take:
            backPressure_.pictureTaken(queue_.now());
            captureWaits_ = false;
            endHoldingBack(queue_.now());
            return ScreenCapture::Admission::take;
        case BackPressure::Verdict::full:
            sender_.countDroppedFrame();
            break;
        case BackPressure::Verdict::late:
            break;
    }
    captureWaits_ = true;
    // A queue on the path tells of itself by its delay, and while it drains the rate is not what is wrong.
    if (!heldBackSince_ && !backPressure_.pathDrains()) heldBackSince_ = queue_.now();
    armGate();
    return ScreenCapture::Admission::putOff;
}

bool VideoPipeline::gateIsOpen() {
    return backPressure_.judge(load(), queue_.now()) == BackPressure::Verdict::take;
}

void VideoPipeline::armGate() {
    if (!gateTimer_) gateTimer_ = queue_.after(parameters_.gateInterval, [this] { reopenGate(); });
}

void VideoPipeline::handleDrained() {
    assertOn(queue_);
    reopenGate();
}

void VideoPipeline::reopenGate() {
    if (!captureWaits_ && !repeatWaits_) {
        gateTimer_.reset();
        return;
    }
    if (!gateIsOpen()) {
        armGate();
        return;
    }
    gateTimer_.reset();
    endHoldingBack(queue_.now());
    if (std::exchange(captureWaits_, false) && capture_) {
        capture_->resume();
        // A change shows more than a repeat, and most often takes its place.
        if (repeatWaits_) armGate();
        return;
    }
    repeatWaits_ = false;
    armRepeats();
}

// From picture to wire

void VideoPipeline::handleSample(const ScreenSample& sample) {
    if (!encoder_ || !sample.picture || sample.picture->size != encoderSize_) return;
    lastPicture_ = sample.picture;
    lastCaptureMicros_ = sample.captureMicros;
    encodedRepeat_.reset();
    encoder_->encode(*sample.picture, sample.captureMicros, {.damage = sample.damage});
}

void VideoPipeline::handleEncoded(const EncodedFrame& frame) {
    gaveFrame_ = true;
    if (frame.parameterSets) {
        // On the reliable stream, and so there in any case when the keyframe is.
        services_.connection->send(MessageType::streamConfig,
                                   StreamConfig{.codec = encoder_->codec(),
                                                .isDynamic = isDynamic_,
                                                .width = static_cast<std::uint32_t>(encoderSize_->width),
                                                .height = static_cast<std::uint32_t>(encoderSize_->height),
                                                .parameterSets = *frame.parameterSets}
                                       .encode());
    }
    const std::uint32_t number = sender_.send(VideoFrameView{.isKeyframe = frame.isKeyframe,
                                                             .captureMicros = frame.captureMicros,
                                                             .submitMicros = frame.submitMicros,
                                                             .encodedMicros = frame.encodedMicros,
                                                             .data = frame.data}
                                                  .encode());
    lastSent_ = queue_.now();
    if (protection_.sendsTwice()) scheduleCopy(number);
    repeats_.sent({.number = number,
                   .repeats = encodedRepeat_,
                   .isKeyframe = frame.isKeyframe,
                   .meanQuantizer = frame.meanQuantizer},
                  lastSent_);
    armRepeats();
    armRate();
}

// Repeats

void VideoPipeline::armRepeats() {
    const TimePoint now = queue_.now();
    const auto next = repeats_.nextDue(now);
    if (!next) return;
    // Movement pushes everything back sixty times a second: a timer that comes early just looks again.
    if (repeatTimer_ && repeatTimerAt_ <= *next) return;
    repeatTimerAt_ = std::max(*next, now);
    repeatTimer_ = queue_.after(repeatTimerAt_ - now, [this] { sendDueRepeat(); });
}

void VideoPipeline::sendDueRepeat() {
    const auto kind = repeats_.due(queue_.now());
    if (kind && lastPicture_) {
        if (!gateIsOpen()) {
            repeatWaits_ = true;
            armGate();
            return;
        }
        repeat(*kind);
    }
    armRepeats();
}

void VideoPipeline::repeat(RepeatScheduler::Kind kind) {
    encodedRepeat_ = kind;
    gaveFrame_ = false;
    if (kind == RepeatScheduler::Kind::keyframe) encoder_->requestKeyframe();
    encoder_->encode(*lastPicture_, lastCaptureMicros_,
                     {.damage = {}, .refine = kind == RepeatScheduler::Kind::sharpening});
    if (!gaveFrame_) repeats_.failed(kind, queue_.now());
}

void VideoPipeline::requestKeyframe() {
    assertOn(queue_);
    if (!encoder_) return;
    encoder_->requestKeyframe();
    repeats_.wantKeyframe(queue_.now());
    armRepeats();
}

void VideoPipeline::handleLost(std::uint32_t frame) {
    assertOn(queue_);
    repeats_.lost(frame, queue_.now());
    armRepeats();
}

void VideoPipeline::handleMended(std::uint32_t frame) {
    assertOn(queue_);
    repeats_.mended(frame);
}

// Rate

std::int64_t VideoPipeline::allowedMbps(const ServerSettings& settings, std::int64_t viewerMaxMbps) {
    return viewerMaxMbps >= 1 && viewerMaxMbps < settings.bitrateMbps ? viewerMaxMbps : settings.bitrateMbps;
}

void VideoPipeline::limitRateTo(std::int64_t mbps) {
    assertOn(queue_);
    viewerMaxMbps_ = std::max<std::int64_t>(mbps, 0);
    rate_.setCeiling(bitsOf(allowedMbps(settings_, viewerMaxMbps_)));
    applyRate();
}

/// As far as we found out, or the viewer did.
bool VideoPipeline::pathSetsRate() const {
    return rate_.bitsPerSecond() < bitsOf(settings_.bitrateMbps);
}

std::int64_t VideoPipeline::encoderRate() const {
    return protection_.sendsTwice() ? rate_.bitsPerSecond() / 2 : rate_.bitsPerSecond();
}

void VideoPipeline::armRate() {
    if (rateTimer_) return;
    rateSampledAt_ = queue_.now();
    rateTimer_ = queue_.after(parameters_.rateInterval, [this] { sampleRate(); });
}

void VideoPipeline::sampleRate() {
    const TimePoint now = queue_.now();
    const double heldBackShare = takeHeldBackShare(now);
    if (const auto path = sender_.pathStatistics(); path && !sender_.sharesPath()) {
        rate_.update({.queueAge = std::max(worstAge_, sender_.load().flowAge),
                      .heldBackShare = heldBackShare,
                      .path = *path},
                     now);
        protection_.update(*path, rate_.delay(), now);
        applyRate();
    }
    worstAge_ = {};
    if (now - lastSent_ < parameters_.restAfter) armRate();
}

void VideoPipeline::endHoldingBack(TimePoint now) {
    if (heldBackSince_) heldBack_ += now - *heldBackSince_;
    heldBackSince_.reset();
}

double VideoPipeline::takeHeldBackShare(TimePoint now) {
    const bool goesOn = heldBackSince_.has_value();
    endHoldingBack(now);
    if (goesOn) heldBackSince_ = now;
    const auto span = now - std::exchange(rateSampledAt_, now);
    return std::chrono::duration<double>(std::exchange(heldBack_, {})) / std::chrono::duration<double>(span);
}

void VideoPipeline::applyRate() {
    const std::int64_t wanted = encoderRate();
    const bool isNarrow = pathSetsRate();
    if (!encoder_ || (wanted == appliedRate_ && isNarrow == appliedNarrow_)) return;
    const double change =
        std::abs(static_cast<double>(wanted - appliedRate_)) / static_cast<double>(appliedRate_);
    // Software HEVC cannot change while it runs: the encoder begins anew, and with a keyframe.
    const bool restarts = encoder_->codec() == VideoCodec::hevc && !encoder_->isHardware();
    const bool isSmall = change < (restarts ? parameters_.restartStep : parameters_.rateStep);
    if (isSmall && !rate_.isAtCeiling() && (restarts || isNarrow == appliedNarrow_)) return;
    appliedRate_ = wanted;
    appliedNarrow_ = isNarrow;
    encoder_->setBitrate(wanted, isNarrow ? parameters_.burstOnNarrowPath : parameters_.burst);
}

void VideoPipeline::scheduleCopy(std::uint32_t frame) {
    copies_.emplace_back(queue_.now() + protection_.spacing(), frame);
    if (!copyTimer_) copyTimer_ = queue_.after(protection_.spacing(), [this] { sendDueCopies(); });
}

void VideoPipeline::sendDueCopies() {
    const TimePoint now = queue_.now();
    while (!copies_.empty() && copies_.front().first <= now) {
        // Behind bytes that wait it would only make the next picture late.
        if (gateIsOpen()) sender_.sendCopy(copies_.front().second);
        copies_.pop_front();
    }
    if (!copies_.empty()) copyTimer_ = queue_.after(copies_.front().first - now, [this] { sendDueCopies(); });
}

}  // namespace velmora
