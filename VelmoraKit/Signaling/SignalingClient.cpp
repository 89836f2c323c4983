#include "VelmoraKit/Signaling/SignalingClient.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace velmora {

Result<SignalingUrl> SignalingClient::defaultURL() {
    const char* chosen = std::getenv("VELMORA_SIGNALING");
    if (!chosen) return SignalingUrl::ofThisBuild();
    auto url = SignalingUrl::parse(chosen);
    if (!url) return Failure{fmt::format("VELMORA_SIGNALING: {}", url.error().text)};
    return url;
}

SignalingClient::SignalingClient(SignalingUrl url, WebSocketFactory& sockets, Queue& main)
    : SignalingClient(std::move(url), sockets, main, Parameters()) {}

SignalingClient::SignalingClient(SignalingUrl url, WebSocketFactory& sockets, Queue& main,
                                 Parameters parameters)
    : url_(std::move(url)),
      sockets_(sockets),
      main_(main),
      parameters_(parameters),
      retryDelay_(parameters.firstRetry) {}

SignalingClient::~SignalingClient() {
    onStateChange = nullptr;
    disconnect();
}

void SignalingClient::connect(std::function<void()> onOpen) {
    assertOn(main_);
    onOpen_ = std::move(onOpen);
    wantsConnection_ = true;
    if (!socket_) open();
}

void SignalingClient::open() {
    retry_.reset();
    // A socket is silent once it is destroyed, so whatever speaks here is the present one.
    socket_ = sockets_.open(url_.text(), rendezvous::longestMessage,
                            {.onOpen = [this] { handleOpen(); },
                             .onText = [this](const std::string& text) { handleText(text); },
                             .onEnd =
                                 [this](const WebSocket::End& end) {
                                     dropped(end.closeCode
                                                 ? fmt::format("closed by the server ({})", *end.closeCode)
                                                 : std::string(end.error));
                                 }});
    moveTo(State::connecting);
}

void SignalingClient::handleOpen() {
    assertOn(main_);
    retryDelay_ = parameters_.firstRetry;
    // Telling the state may destroy us or let the socket go.
    const auto alive = liveness_.weak();
    moveTo(State::connected);
    if (alive.expired() || state_ != State::connected) return;
    if (const auto notify = onOpen_) notify();
}

void SignalingClient::handleText(const std::string& text) {
    assertOn(main_);
    const auto message = rendezvous::decodeToClient(text);
    if (!message) return;
    if (const auto notify = onMessage) notify(*message);
}

void SignalingClient::dropped(const std::string& reason) {
    assertOn(main_);
    socket_.reset();
    if (wantsConnection_) {
        retry_ = main_.after(retryDelay_, [this] { open(); });
        retryDelay_ = std::min(2 * retryDelay_, parameters_.longestRetry);
    }
    moveTo(State::disconnected, reason);
}

void SignalingClient::disconnect() {
    assertOn(main_);
    wantsConnection_ = false;
    retry_.reset();
    if (socket_) socket_->close();
    socket_.reset();
    if (state_ != State::disconnected) moveTo(State::disconnected);
}

void SignalingClient::send(const rendezvous::FromClient& message) {
    assertOn(main_);
    if (state_ == State::connected) socket_->send(rendezvous::encode(message));
}

void SignalingClient::moveTo(State next, const std::optional<std::string>& reason) {
    state_ = next;
    if (const auto notify = onStateChange) notify(next, reason);
}

}  // namespace velmora
