#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Signaling/WebSocket.h"

namespace velmora {

/// The far end of one fake socket: a server that does what the test says. What it does after the client has
/// let go of the socket reaches nobody.
class FakeWebSocketServerEnd {
public:
    const std::string url;
    const std::size_t longestMessage;
    std::vector<std::string> received;
    bool closedByClient = false;  // said goodbye
    bool gone = false;            // the client has destroyed its socket

    FakeWebSocketServerEnd(std::string url, std::size_t longestMessage, WebSocket::Events events)
        : url(std::move(url)), longestMessage(longestMessage), events_(std::move(events)) {}

    bool isOpen() const { return state_ == State::open; }
    bool isWaiting() const { return state_ == State::waiting; }

    void open() {
        if (state_ != State::waiting) return;
        state_ = State::open;
        if (const auto tell = events_.onOpen) tell();
    }
    void sendText(const std::string& text) {
        if (state_ != State::open) return;
        if (text.size() > longestMessage) return fail("message too big");
        if (const auto tell = events_.onText) tell(text);
    }
    void close(int code) { end({.closeCode = code, .error = {}}); }
    void fail(const std::string& error) { end({.closeCode = std::nullopt, .error = error}); }

    void takeFromClient(std::string text) {
        if (state_ == State::open) received.push_back(std::move(text));
    }
    void closeByClient() {
        closedByClient = state_ != State::ended;
        state_ = State::ended;
    }
    void loseClient() {
        gone = true;
        state_ = State::ended;
    }

private:
    enum class State { waiting, open, ended };
    void end(const WebSocket::End& how) {
        if (state_ == State::ended) return;
        state_ = State::ended;
        if (const auto tell = events_.onEnd) tell(how);
    }

    WebSocket::Events events_;
    State state_ = State::waiting;
};

/// Keeps the far ends of all sockets that were asked for, the newest last.
class FakeWebSocketFactory final : public WebSocketFactory {
public:
    std::vector<std::shared_ptr<FakeWebSocketServerEnd>> ends;

    FakeWebSocketServerEnd& newest() const { return *ends.at(ends.size() - 1); }

    std::unique_ptr<WebSocket> open(const std::string& url, std::size_t longestMessage,
                                    WebSocket::Events events) override {
        ends.push_back(std::make_shared<FakeWebSocketServerEnd>(url, longestMessage, std::move(events)));
        return std::make_unique<Socket>(ends.back());
    }

private:
    class Socket final : public WebSocket {
    public:
        explicit Socket(std::shared_ptr<FakeWebSocketServerEnd> server) : server_(std::move(server)) {}
        ~Socket() override { server_->loseClient(); }
        void send(std::string text) override { server_->takeFromClient(std::move(text)); }
        void close() override { server_->closeByClient(); }

    private:
        const std::shared_ptr<FakeWebSocketServerEnd> server_;
    };
};

}  // namespace velmora
