#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Media/VideoReassembler.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// The far end of a host's connection, for tests: says what the test tells it to, and remembers what it
/// heard. It puts frames together, but asks for no repair by itself.
class ScriptedViewer {
public:
    struct Options {
        std::uint16_t port = 47272;
        bool takesDatagrams = true;
    };
    /// Connects at once; what is said before that is done waits for it.
    ScriptedViewer(TransportStack& stack, Queue& queue) : ScriptedViewer(stack, queue, Options()) {}
    ScriptedViewer(TransportStack& stack, Queue& queue, Options options);
    ~ScriptedViewer();
    ScriptedViewer(const ScriptedViewer&) = delete;
    ScriptedViewer& operator=(const ScriptedViewer&) = delete;

    void send(MessageType type, ByteView payload = {});
    void say(const Hello& hello) { send(MessageType::hello, hello.encode()); }
    void close();

    struct Message {
        MessageType type;
        Bytes payload;
    };
    std::vector<Message> received;
    std::vector<VideoFrame> frames;  // over datagrams or the stream, in order
    std::size_t datagrams = 0;
    bool isConnected = false;
    std::optional<TransportState> ended;  // how the connection ended
    std::optional<TransportError> error;
    /// Drops a datagram before it is looked at.
    std::function<bool(ByteView)> dropsDatagram;

    int countOf(MessageType type) const;
    std::vector<std::string> logLines() const;
    bool hasLogLine(std::string_view line) const;
    std::optional<Denied> denied() const;
    std::optional<StreamConfig> lastConfig() const;
    std::optional<DisplayList> lastDisplayList() const;

private:
    void begin();
    void take(VideoReassembler::Output output);

    Queue& queue_;
    const Options options_;
    std::shared_ptr<ConnectionGroup> group_;
    std::shared_ptr<MessageConnection> connection_;
    std::shared_ptr<DatagramFlow> flow_;
    std::vector<Message> waiting_;
    VideoReassembler reassembler_;
};

}  // namespace velmora
