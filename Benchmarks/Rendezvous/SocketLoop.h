#pragma once

#include <netinet/in.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// A loopback address of its own for each client, so that a service's limits per address see many machines.
in_addr loopbackAddress(std::uint32_t index);

/// Where the service listens, on the loopback.
struct ServicePort {
    std::uint16_t number = 0;
    bool tls = false;  // whose certificate nobody checks
};

/// Many connections of one thread, as cheap as they come: what is measured is the other end.
class SocketLoop {
public:
    SocketLoop();
    ~SocketLoop();
    SocketLoop(const SocketLoop&) = delete;
    SocketLoop& operator=(const SocketLoop&) = delete;

    /// One TCP connection to the service, with or without a WebSocket on it.
    class Connection {
    public:
        enum class Purpose { webSocket, halfOpen };  // half open: never completes its request
        Connection(SocketLoop& loop, std::uint32_t address, ServicePort port, Purpose purpose);
        ~Connection();
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;

        std::function<void()> onOpen;
        std::function<void(std::string_view)> onText;
        std::function<void()> onClosed;  // or never opened; the last thing that is called

        void sendText(std::string_view text);
        void sendRaw(std::string_view bytes);

    private:
        friend class SocketLoop;
        enum class State { connecting, shakingHands, upgrading, open, closed };
        void handle(std::uint32_t events);
        void shakeHands();
        ssize_t receive(char* into, std::size_t size);
        void read();
        bool readFrame();
        void fail();

        SocketLoop& loop_;
        const Purpose purpose_;
        int descriptor_ = -1;
        std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, SSL_free};
        State state_ = State::connecting;
        std::string arrived_;
    };

    /// Serves connections for at most `limit`, or until `done` holds, which is asked after each event.
    void runFor(std::chrono::microseconds limit, const std::function<bool()>& done = nullptr);
    /// Destroys it once no callback of it runs any more.
    void retire(std::unique_ptr<Connection> connection) { retired_.push_back(std::move(connection)); }

private:
    const int epoll_;
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls_;
    std::unordered_map<int, Connection*> connections_;
    std::vector<std::unique_ptr<Connection>> retired_;
};

}  // namespace velmora
