#include "Testing/ScriptedHost.h"

#include <algorithm>
#include <utility>

#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {

ScriptedHost::ScriptedHost(TransportStack& stack, Queue& queue, Options options)
    : queue_(queue), options_(std::move(options)) {
    const auto identity = options_.identity.value_or(TransportIdentity{bytesOf(options_.fingerprint), {}});
    listener_ = stack.listenOn(options_.port, {.identity = identity});
    listener_->onGroup = [this](std::shared_ptr<ConnectionGroup> group) { accept(std::move(group)); };
    listener_->start(queue_);
}

void ScriptedHost::accept(std::shared_ptr<ConnectionGroup> group) {
    ++connections;
    group_ = std::move(group);
    flow_.reset();
    group_->onStream = [this](std::shared_ptr<Stream> stream) { listenTo(std::move(stream)); };
    group_->onDatagramFlow = [this](std::shared_ptr<DatagramFlow> flow) {
        flow_ = std::move(flow);
        flow_->start(queue_);
    };
    group_->start(queue_);
}

void ScriptedHost::listenTo(std::shared_ptr<Stream> stream) {
    connection_ = std::make_shared<MessageConnection>(std::move(stream), queue_);
    connection_->onMessage = [this](MessageType type, const Bytes& payload) { handle(type, payload); };
    connection_->start();
}

void ScriptedHost::handle(MessageType type, const Bytes& payload) {
    received.push_back({type, payload});
    if (type != MessageType::ping || !answersPings) return;
    const auto ping = Ping::decode(payload);
    send(MessageType::pong, Pong{.viewerMicros = ping->viewerMicros,
                                 .serverMicros = nowMicros(),
                                 .serverCPUPermille = cpuPermille,
                                 .droppedFrames = droppedFrames}
                                .encode());
}

std::optional<Hello> ScriptedHost::hello() const {
    const auto decoded = Hello::decode(lastOf(MessageType::hello));
    if (!decoded) return std::nullopt;
    return *decoded;
}

int ScriptedHost::countOf(MessageType type) const {
    return static_cast<int>(std::ranges::count(received, type, &Message::type));
}

Bytes ScriptedHost::lastOf(MessageType type) const {
    for (auto message = received.rbegin(); message != received.rend(); ++message) {
        if (message->type == type) return message->payload;
    }
    return {};
}

void ScriptedHost::send(MessageType type, ByteView payload) {
    if (connection_) connection_->send(type, payload);
}

void ScriptedHost::endConnection() {
    if (connection_) connection_->cancel();
    if (flow_) flow_->cancel();
}

void ScriptedHost::startStream(PixelSize size, VideoCodec codec, bool isDynamic) {
    auto made = compressors_.make({.codec = codec, .size = size});
    compressor_ = std::move(made).value();
    picture_ = std::make_shared<PictureBuffer>(size);
    // The parameter sets come with a keyframe, which the viewer shall not see.
    const auto first = compressor_->encode(*PictureBuffer::view(picture_), {.forceKeyframe = true});
    config_ = {.codec = codec,
               .isDynamic = isDynamic,
               .width = static_cast<std::uint32_t>(size.width),
               .height = static_cast<std::uint32_t>(size.height),
               .parameterSets = first->parameterSets.value()};
    sendConfig();
}

void ScriptedHost::sendConfig() {
    send(MessageType::streamConfig, config_.encode());
}

void ScriptedHost::sendFrame(const Frame& frame) {
    brightness_ = static_cast<std::uint8_t>(brightness_ == 200 ? 16 : brightness_ + 1);
    std::fill_n(picture_->y, static_cast<std::size_t>(picture_->strideY) * picture_->size.height,
                brightness_);
    const PixelRect all{0, 0, picture_->size.width, picture_->size.height};
    const auto compressed = compressor_->encode(*PictureBuffer::view(picture_),
                                                {.forceKeyframe = frame.keyframe, .damage = {&all, 1}});
    const std::uint64_t now = nowMicros();
    sendRecord({.isKeyframe = compressed->isKeyframe,
                .captureMicros = frame.captureMicros.value_or(now),
                .submitMicros = now,
                .encodedMicros = now,
                .data = compressed->data},
               frame.way);
}

void ScriptedHost::sendBrokenFrame(bool keyframe) {
    sendRecord({.isKeyframe = keyframe, .captureMicros = nowMicros(), .data = bytesOf("no picture")},
               Frame::Way::stream);
}

void ScriptedHost::sendRecord(const VideoFrame& frame, Frame::Way way) {
    const Bytes record = frame.encode();
    if (way == Frame::Way::stream) return send(MessageType::videoFrame, record);
    ++frameNumber_;
    if (way == Frame::Way::lost || !flow_) return;
    const std::size_t size = flow_->usableDatagramFrameSize().value_or(1158);
    flow_->send(VideoPackets::split(record, frameNumber_, size - VideoPackets::headerSize), frameNumber_);
}

}  // namespace velmora
