#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Picture.h"
#include "Testing/FakeVideoCompressor.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// The far end of a viewer's connection, for tests: it takes every viewer, remembers what was said, and says
/// what the test tells it to. It decides nothing by itself but the answer to a ping.
class ScriptedHost {
public:
    struct Options {
        std::uint16_t port = 47272;
        std::string fingerprint = "AB01";
        std::int64_t clockAhead = 0;  // microseconds that its clock is ahead of the queue's
        /// For a real network; none: the fingerprint is the certificate, as SimulatedLink has it.
        std::optional<TransportIdentity> identity = {};
    };
    /// Lives on `queue`.
    ScriptedHost(TransportStack& stack, Queue& queue, Options options);

    struct Message {
        MessageType type;
        Bytes payload;
    };
    std::vector<Message> received;  // over all connections
    int connections = 0;

    std::optional<Hello> hello() const;  // the last one
    int countOf(MessageType type) const;
    /// The payload of the last message of that type; empty bytes if there was none.
    Bytes lastOf(MessageType type) const;

    bool answersPings = true;
    std::uint32_t cpuPermille = 0;
    std::uint32_t droppedFrames = 0;

    void send(MessageType type, ByteView payload = {});
    void endConnection();  // closes in peace
    bool hasFlow() const { return flow_ != nullptr; }

    /// A stream of that shape begins: its `streamConfig`, and an encoder that needs a keyframe first.
    void startStream(PixelSize size, VideoCodec codec = VideoCodec::h264, bool isDynamic = false);
    void sendConfig();

    struct Frame {
        bool keyframe = false;
        std::optional<std::uint64_t> captureMicros;  // of its own clock; none: a picture taken now
        enum class Way { datagrams, stream, lost } way = Way::datagrams;
    };
    /// The next picture, of a brightness that differs from the last one's.
    void sendFrame(const Frame& frame);
    void sendKeyframe() { sendFrame({.keyframe = true}); }
    /// A `videoFrame` record that no decoder takes.
    void sendBrokenFrame(bool keyframe);

    std::uint64_t nowMicros() const {
        return queue_.nowMicros() + static_cast<std::uint64_t>(options_.clockAhead);
    }

private:
    void accept(std::shared_ptr<ConnectionGroup> group);
    void listenTo(std::shared_ptr<Stream> stream);
    void handle(MessageType type, const Bytes& payload);
    void sendRecord(const VideoFrame& frame, Frame::Way way);

    Queue& queue_;
    const Options options_;
    std::unique_ptr<Listener> listener_;
    std::shared_ptr<ConnectionGroup> group_;
    std::shared_ptr<MessageConnection> connection_;
    std::shared_ptr<DatagramFlow> flow_;
    FakeVideoCompressorFactory compressors_;
    std::unique_ptr<VideoCompressor> compressor_;
    std::shared_ptr<PictureBuffer> picture_;
    StreamConfig config_;
    std::uint8_t brightness_ = 16;
    std::uint32_t frameNumber_ = 0;
};

}  // namespace velmora
