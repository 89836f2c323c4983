#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Linux/Network/LocalPort.h"
#include "Platform/Linux/Network/NetworkLoop.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"

namespace velmora {

/// A listener as its owner holds it. Its port lives on: connections that it handed over keep it, and the next
/// listener on the same number gets the same socket.
class QuicListener final : public Listener {
public:
    QuicListener(std::shared_ptr<NetworkLoop> loop, std::shared_ptr<LocalPorts> ports, std::uint16_t port,
                 QUICSetup::Parameters parameters);
    ~QuicListener() override;

    void start(Queue& queue) override;
    void cancel() override;
    TransportState state() const override;

private:
    /// Shared with the network thread; what is told goes through it, until the listener is gone.
    struct Shared : std::enable_shared_from_this<Shared> {
        std::atomic<TransportState> state{TransportState::setup};
        std::mutex mutex;  // guards the two below
        Queue* queue = nullptr;
        QuicListener* listener = nullptr;  // called on `queue` only
        LocalPort* port = nullptr;         // network thread; set while listening there
        bool cancelled = false;            // network thread

        void tell(std::function<void(QuicListener&)> event);
        void report(TransportState state, std::optional<TransportError> error);
    };
    static void open(const std::shared_ptr<Shared>& shared, LocalPorts& ports, std::uint16_t number,
                     const QUICSetup::Parameters& parameters);

    const std::shared_ptr<NetworkLoop> loop_;
    const std::shared_ptr<LocalPorts> ports_;
    const std::uint16_t port_;
    const QUICSetup::Parameters parameters_;
    const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

}  // namespace velmora
