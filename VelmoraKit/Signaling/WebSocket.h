#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace velmora {

/// The client's end of one WebSocket, from the moment it is asked for until it has ended; it is never opened
/// again. Everything, callbacks included, happens on the main queue.
class WebSocket {
public:
    struct End {
        std::optional<int> closeCode;  // the server sent a close frame with it
        std::string error;             // otherwise: what went wrong
    };
    /// None is called from inside a call of the socket or of its factory; each may destroy the socket.
    struct Events {
        std::function<void()> onOpen;                         // once
        std::function<void(const std::string& text)> onText;  // whole text messages; binary ones are dropped
        std::function<void(const End&)> onEnd;                // once, and the last
    };

    /// No event comes afterwards. A socket that was not closed before is cut off.
    virtual ~WebSocket() = default;

    /// One text message. Lost unless the socket is open.
    virtual void send(std::string text) = 0;
    /// Lets what was sent leave, then ends with code 1000. No event comes afterwards, and the socket may be
    /// destroyed at once: its farewell goes on without it, for a moment at most.
    virtual void close() = 0;
};

class WebSocketFactory {
public:
    virtual ~WebSocketFactory() = default;

    /// Begins to connect to `url`, of scheme ws or wss. Never null: what cannot be opened ends with an error.
    /// A message of more than `longestMessage` bytes is an error too. A server that has fallen silent shows
    /// as an error within a minute or so: the socket sees to that with pings of its own.
    virtual std::unique_ptr<WebSocket> open(const std::string& url, std::size_t longestMessage,
                                            WebSocket::Events events) = 0;
};

}  // namespace velmora
