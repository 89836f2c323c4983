#include "Viewer/Session/VideoDecoder.h"

#include <utility>

namespace velmora {

void VideoDecoder::setFormat(VideoFormat format) {
    assertOn(queue_);
    format_ = std::move(format);
    if (session_ && session_->accepts(format_->config)) return;
    session_.reset();
    createSession();
}

void VideoDecoder::createSession() {
    if (!format_) return;
    auto made = factory_.make(format_->config);
    if (!made) return;
    session_ = std::move(made).value();
    isHardware_ = session_->isHardware();
}

bool VideoDecoder::decode(const VideoSample& sample, const Output& onOutput) {
    assertOn(queue_);
    if (!session_) createSession();
    if (!session_) return false;
    auto picture = session_->decode(sample.data);
    const std::uint64_t decodedMicros = queue_.nowMicros();
    if (!picture) {
        if (picture.error().code == VideoDecompressor::sessionInvalid) session_.reset();
        return false;
    }
    isHardware_ = session_->isHardware();  // known for sure only now: a device may refuse the first picture
    if (onOutput) onOutput(std::move(picture).value(), decodedMicros);
    return true;
}

void VideoDecoder::invalidate() {
    assertOn(queue_);
    session_.reset();
}

}  // namespace velmora
