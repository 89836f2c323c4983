#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Signaling/SignalingUrl.h"
#include "VelmoraKit/Signaling/WebSocket.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

/// Keeps one WebSocket to the rendezvous service for as long as its owner wants it, and opens another one
/// whenever it is lost. What the messages mean is the owner's business. Lives on the main queue; every
/// callback may destroy the client.
class SignalingClient {
public:
    enum class State { disconnected, connecting, connected };
    struct Parameters {
        std::chrono::milliseconds firstRetry{1'000};     // doubled after each failure, back after a success
        std::chrono::milliseconds longestRetry{30'000};  // so a host is back soon after its network
    };

    /// The environment variable VELMORA_SIGNALING, else this build's service. A failure, which ends the
    /// program: the variable holds no URL.
    static Result<SignalingUrl> defaultURL();

    /// All outlive us.
    SignalingClient(SignalingUrl url, WebSocketFactory& sockets, Queue& main);
    SignalingClient(SignalingUrl url, WebSocketFactory& sockets, Queue& main, Parameters parameters);
    /// As `disconnect`, but nothing is told.
    ~SignalingClient();
    SignalingClient(const SignalingClient&) = delete;
    SignalingClient& operator=(const SignalingClient&) = delete;

    std::function<void(const rendezvous::ToClient&)> onMessage;
    /// The reason goes with `disconnected`, unless the owner asked for it. That state is told for each
    /// attempt that failed.
    std::function<void(State, const std::optional<std::string>& reason)> onStateChange;

    State state() const { return state_; }

    /// `onOpen` runs each time a socket has opened, also after a loss. While there is a socket or one is on
    /// its way, `onOpen` is all that changes.
    void connect(std::function<void()> onOpen);
    /// What was sent still leaves.
    void disconnect();
    /// Lost unless connected.
    void send(const rendezvous::FromClient& message);

private:
    void open();
    void handleOpen();
    void handleText(const std::string& text);
    void dropped(const std::string& reason);
    void moveTo(State next, const std::optional<std::string>& reason = std::nullopt);

    const SignalingUrl url_;
    WebSocketFactory& sockets_;
    Queue& main_;
    const Parameters parameters_;

    State state_ = State::disconnected;
    bool wantsConnection_ = false;
    std::function<void()> onOpen_;
    std::chrono::milliseconds retryDelay_;
    TimerToken retry_;                   // held while a socket is wanted and there is none
    std::unique_ptr<WebSocket> socket_;  // held while connecting or connected
    Liveness liveness_;
};

}  // namespace velmora
