#include "Viewer/Session/ViewerMediaPath.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

ViewerMediaPath::ViewerMediaPath(std::string hostName, Queue& client, VideoDecompressorFactory& decompressors,
                                 VideoRenderer* renderer, const VsyncTracker* vsync,
                                 const Parameters& parameters)
    : hostName_(std::move(hostName)),
      client_(client),
      renderer_(renderer),
      vsync_(vsync),
      parameters_(parameters),
      decompressors_(decompressors),
      decoder_(decompressors, client) {}

void ViewerMediaPath::handle(MessageType type, const Bytes& payload) {
    assertOn(client_);
    switch (type) {
        case MessageType::streamConfig:
            return handleStreamConfig(payload);
        case MessageType::videoFrame:
            return handleVideoFrame(payload);
        case MessageType::pong:
            if (const auto pong = Pong::decode(payload)) stats_.recordPong(*pong, client_.nowMicros());
            return;
        case MessageType::log:
            return logFromHost(payload);
        case MessageType::displayList:
            return handleDisplayList(payload);
        case MessageType::cursor:
            return handleCursor(payload);
        case MessageType::clipboard:
            if (onClipboard) onClipboard(payload);
            return;
        case MessageType::textFocus:
            if (onTextFocus) onTextFocus(TextFocus::decode(payload)->focused);
            return;
        case MessageType::denied:
            return handleDenied(payload);
        case MessageType::bye:
            // The end of the stream is what ends the session.
            if (const auto connection = connection_.lock()) connection->cancel();
            return;
        case MessageType::audio:  // not asked for: there is no player yet
        case MessageType::hello:
        case MessageType::requestKeyframe:
        case MessageType::input:
        case MessageType::ping:
        case MessageType::resizeDisplay:
        case MessageType::selectDisplay:
        case MessageType::bitrateHint:
        case MessageType::nack:
            return;
    }
}

void ViewerMediaPath::handleStreamConfig(const Bytes& payload) {
    const auto config = StreamConfig::decode(payload);
    if (!config || closed_) return;
    auto format = VideoDecoding::formatDescription(*config, decompressors_);
    if (!format) return;
    format_ = format;
    decoder_.setFormat(*std::move(format));

    StreamFormat stream{.codecName = config->codec == VideoCodec::hevc ? "HEVC" : "H.264",
                        .hardwareDecode = decoder_.isHardware(),
                        .size = {static_cast<int>(config->width), static_cast<int>(config->height)},
                        .isDynamic = config->isDynamic};
    stream.hasChanged = !stream_ || stream_->size != stream.size || stream_->isDynamic != stream.isDynamic;
    debugLog(fmt::format("Stream: {} {}×{} px, {}, {}", stream.codecName, config->width, config->height,
                         stream.isDynamic ? "virtual display follows this window" : "fixed server display",
                         stream.hardwareDecode ? "hardware decode" : "⚠︎ software decode"));
    stream_ = stream;
    if (onStream) onStream(stream);
}

void ViewerMediaPath::handleVideoFrame(const Bytes& payload) {
    const std::uint64_t received = client_.nowMicros();  // first: it ends the measurement of the network
    const auto frame = VideoFrameView::decode(payload);
    if (!frame || closed_) return;
    if (!format_) return requestKeyframe();
    if (renderer_ && (renderer_->hasFailed() || renderer_->requiresFlush())) {
        renderer_->flush();
        waitForKeyframe();
    }
    if (waitingForKeyframe_) {
        if (!frame->isKeyframe) return;
        waitingForKeyframe_ = false;
        debugLog(fmt::format("Keyframe received ({} KB); showing video", payload.size() / 1024));
    }
    const auto sample = VideoDecoding::sampleBuffer(frame->data, *format_);
    if (!sample) return;
    if (decode(*sample, {.bytes = payload.size(),
                         .isKeyframe = frame->isKeyframe,
                         .capture = frame->captureMicros,
                         .submit = frame->submitMicros,
                         .encoded = frame->encodedMicros,
                         .received = received})) {
        return;
    }
    debugLog("⚠︎ Decode failed; asking for a keyframe");
    waitForKeyframe();
}

bool ViewerMediaPath::decode(const VideoSample& sample, FrameTiming timing) {
    SharedPicture picture;
    if (!decoder_.decode(sample, [&](SharedPicture decoded, std::uint64_t micros) {
            picture = std::move(decoded);
            timing.decoded = micros;
        })) {
        return false;
    }
    if (decoder_.isHardware() != stream_->hardwareDecode) {
        // A device may refuse a stream only when it sees the first picture.
        stream_->hardwareDecode = decoder_.isHardware();
        stream_->hasChanged = false;
        if (onStream) onStream(*stream_);
    }
    show(picture, timing);
    return true;
}

void ViewerMediaPath::show(const SharedPicture& picture, FrameTiming timing) {
    const auto sample = VideoDecoding::displaySample(picture, displayFormat_);
    if (!sample) return;
    const Shown shown{timing.capture, picture->size};
    timing.isRepeat = lastShown_ == shown;
    lastShown_ = shown;
    if (renderer_) renderer_->enqueue(*sample);
    {
        std::lock_guard lock(latestPictureLock_);
        latestPicture_ = picture;
    }
    stats_.recordFrame(timing, vsync_ ? vsync_->displayedMicros(timing.decoded) : timing.decoded);
    if (onDecodedFrame) onDecodedFrame({picture, !timing.isRepeat});
}

void ViewerMediaPath::handleGap() {
    assertOn(client_);
    debugLog("Video packets didn't arrive even after asking again; asking for a keyframe");
    waitForKeyframe();
    if (onLostFrame) onLostFrame();
}

void ViewerMediaPath::handleNack(const Nack& nack) {
    assertOn(client_);
    send(MessageType::nack, nack.encode());
    stats_.recordResendRequest();
}

/// What the decoder has is not to be trusted: nothing is shown until a picture that needs none before it.
void ViewerMediaPath::waitForKeyframe() {
    waitingForKeyframe_ = true;
    requestKeyframe();
}

void ViewerMediaPath::requestKeyframe() {
    const auto now = client_.now();
    if (lastKeyframeRequest_ && now - *lastKeyframeRequest_ <= parameters_.keyframeRequestInterval) return;
    lastKeyframeRequest_ = now;
    send(MessageType::requestKeyframe);
}

void ViewerMediaPath::send(MessageType type, const Bytes& payload) {
    if (const auto connection = connection_.lock()) connection->send(type, payload);
}

void ViewerMediaPath::logFromHost(const Bytes& payload) const {
    const ByteView text(payload);
    DebugLog::shared().log(repairedUtf8(text.first(std::min(text.size(), parameters_.longestLogLine))),
                           DebugLog::Source::server);
}

void ViewerMediaPath::handleCursor(const Bytes& payload) {
    auto shape = CursorShape::decode(payload);
    if (!shape) return;
    debugLog(fmt::format("Remote cursor: {:.0f}×{:.0f} pt, hot spot {:.0f},{:.0f}, {} bytes", shape->width,
                         shape->height, shape->hotX, shape->hotY, shape->png.size()));
    if (onCursor) onCursor(*std::move(shape));
}

void ViewerMediaPath::handleDisplayList(const Bytes& payload) {
    auto list = DisplayList::decode(payload);
    if (!list) return;
    std::string all;
    std::string_view current = "virtual display matching this window";
    for (const ServerDisplay& display : list->displays) {
        if (!all.empty()) all += ", ";
        all += fmt::format("{} {}×{}", display.name, display.width, display.height);
        if (display.id == list->currentID) current = display.name;
    }
    debugLog(fmt::format("Server displays: {}; showing {}", all, current));
    if (onDisplayList) onDisplayList(*std::move(list));
}

void ViewerMediaPath::handleDenied(const Bytes& payload) {
    auto error = ConnectionError::fromHost(payload, hostName_);
    debugLog(fmt::format("⚠︎ {} refused the connection: {}. {}", hostName_, error.title, error.message));
    if (onDenied) onDenied(std::move(error));
}

void ViewerMediaPath::close() {
    assertOn(client_);
    closed_ = true;
    decoder_.invalidate();
}

SharedPicture ViewerMediaPath::latestPicture() const {
    std::lock_guard lock(latestPictureLock_);
    return latestPicture_;
}

void ViewerMediaPath::forgetLatestPicture() {
    std::lock_guard lock(latestPictureLock_);
    latestPicture_.reset();
}

}  // namespace velmora
