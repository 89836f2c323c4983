#include "Platform/Linux/Network/QuicListener.h"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "Platform/Linux/Network/QuicSession.h"

namespace velmora {

QuicListener::QuicListener(std::shared_ptr<NetworkLoop> loop, std::shared_ptr<LocalPorts> ports,
                           std::uint16_t port, QUICSetup::Parameters parameters)
    : loop_(std::move(loop)), ports_(std::move(ports)), port_(port), parameters_(std::move(parameters)) {
    shared_->listener = this;
}

QuicListener::~QuicListener() {
    cancel();
    std::lock_guard lock(shared_->mutex);
    shared_->queue = nullptr;
    shared_->listener = nullptr;
}

TransportState QuicListener::state() const {
    return shared_->state;
}

/// `listener` is read on the queue on which it is destroyed, or not at all.
void QuicListener::Shared::tell(std::function<void(QuicListener&)> event) {
    std::lock_guard lock(mutex);
    if (!queue) return;
    queue->post([self = shared_from_this(), event = std::move(event)] {
        QuicListener* to = nullptr;
        {
            std::lock_guard inner(self->mutex);
            to = self->listener;
        }
        if (to) event(*to);
    });
}

void QuicListener::Shared::report(TransportState next, std::optional<TransportError> error) {
    tell([next, error = std::move(error)](QuicListener& listener) {
        listener.shared_->state = next;
        if (const auto notify = listener.onState) notify(next, error);
    });
}

void QuicListener::start(Queue& queue) {
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->queue) return;
        shared_->queue = &queue;
    }
    loop_->post([shared = shared_, ports = ports_, number = port_, parameters = parameters_] {
        open(shared, *ports, number, parameters);
    });
}

void QuicListener::open(const std::shared_ptr<Shared>& shared, LocalPorts& ports, std::uint16_t number,
                        const QUICSetup::Parameters& parameters) {
    if (shared->cancelled) return;
    if (!parameters.identity)
        return shared->report(TransportState::failed,
                              TransportError{0, "no certificate to prove this host with"});
    auto tls = QuicTls::forServer(*parameters.identity);
    if (!tls)
        return shared->report(TransportState::failed, TransportError{tls.error().code, tls.error().text});
    const auto port = ports.open(number);
    if (!port)
        return shared->report(TransportState::failed, TransportError{port.error().code, port.error().text});
    const std::weak_ptr<Shared> weak = shared;
    LocalPort::Acceptor acceptor{
        .tls = *tls, .connection = {}, .onReady = [weak](std::shared_ptr<QuicSession> session) {
            // Should the listener be gone, the group goes with the block, and the connection with the group.
            auto group = std::make_shared<QuicGroup>(std::move(session), nullptr);
            if (const auto listening = weak.lock(); listening && !listening->cancelled) {
                listening->tell([group = std::move(group)](QuicListener& listener) {
                    if (const auto notify = listener.onGroup) notify(group);
                });
            }
        }};
    if (!(*port)->listen(std::move(acceptor))) {
        return shared->report(
            TransportState::failed,
            TransportError{EADDRINUSE, fmt::format("UDP port {}: already listening", number)});
    }
    shared->port = *port;
    shared->report(TransportState::ready, std::nullopt);
}

void QuicListener::cancel() {
    loop_->post([shared = shared_] {
        if (std::exchange(shared->cancelled, true)) return;
        if (shared->port) std::exchange(shared->port, nullptr)->stopListening();
        shared->report(TransportState::cancelled, std::nullopt);
    });
}

}  // namespace velmora
