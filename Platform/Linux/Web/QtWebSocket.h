#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "VelmoraKit/Signaling/WebSocket.h"

namespace velmora {

/// WebSockets in Qt's event loop, on its thread. TLS trusts what the system trusts.
class QtWebSocketFactory final : public WebSocketFactory {
public:
    struct Parameters {
        std::chrono::milliseconds openLimit{30'000};
        std::chrono::milliseconds pingInterval{30'000};  // shorter than NATs forget an idle TCP connection
        std::chrono::milliseconds pongLimit{30'000};     // without an answer the server is gone
        std::chrono::milliseconds farewellLimit{2'000};  // of a socket that was closed, to say so
    };

    QtWebSocketFactory() = default;
    explicit QtWebSocketFactory(Parameters parameters) : parameters_(parameters) {}

    std::unique_ptr<WebSocket> open(const std::string& url, std::size_t longestMessage,
                                    WebSocket::Events events) override;

private:
    const Parameters parameters_{};
};

}  // namespace velmora
