#pragma once

#include <cstdint>
#include <optional>

namespace velmora {

/// Version of everything in this folder. Host and viewer must have the same one: there is no negotiation.
inline constexpr std::int64_t velmoraProtocolVersion = 5;
/// UDP port on which a host listens unless the user chose another.
inline constexpr std::uint16_t velmoraDefaultPort = 47272;
/// Service type under which hosts announce themselves on the local network.
inline constexpr const char* velmoraServiceType = "_velmora._udp";

/// What a message on the control stream is; the value is its byte on the wire.
enum class MessageType : std::uint8_t {
    hello = 1,        // viewer to host: Hello
    streamConfig,     // host to viewer: StreamConfig
    videoFrame,       // host to viewer: VideoFrame
    requestKeyframe,  // viewer to host, empty
    input,            // viewer to host: InputEvent
    bye,              // either way, empty
    ping,             // viewer to host: Ping
    pong,             // host to viewer: Pong
    resizeDisplay,    // viewer to host: DisplayRequest
    log,              // host to viewer: bare UTF-8 text
    displayList,      // host to viewer: DisplayList
    selectDisplay,    // viewer to host: DisplaySelection
    bitrateHint,      // viewer to host: BitrateHint
    nack,             // viewer to host: Nack
    cursor,           // host to viewer: CursorShape
    clipboard,        // either way: packed ClipboardContent
    audio,            // host to viewer: AudioPacket
    textFocus,        // host to viewer: TextFocus
    denied,           // host to viewer: Denied
};

/// Nothing for a byte that names no message: such a message is skipped.
constexpr std::optional<MessageType> messageTypeOf(std::uint8_t byte) {
    if (byte < static_cast<std::uint8_t>(MessageType::hello)) return std::nullopt;
    if (byte > static_cast<std::uint8_t>(MessageType::denied)) return std::nullopt;
    return static_cast<MessageType>(byte);
}

constexpr std::uint8_t byteOf(MessageType type) {
    return static_cast<std::uint8_t>(type);
}

}  // namespace velmora
