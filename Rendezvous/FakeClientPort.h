#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Rendezvous/ClientPort.h"
#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {

/// A client's WebSocket without a wire: keeps what the client would get.
class FakeClientPort final : public ClientPort {
public:
    FakeClientPort(std::uint64_t id, std::string_view address)
        : id_{id}, address_(ClientAddress::parse(address).value()) {}

    SocketId id() const override { return id_; }
    const ClientAddress& address() const override { return address_; }
    void send(std::string text) override {
        if (!closedWith) received.push_back(std::move(text));
    }
    void probe() override { ++probes; }
    void settle() override { settled = true; }
    void close(CloseReason code, std::string_view) override {
        if (!closedWith) closedWith = code;
    }

    /// The oldest message not taken yet; none if there is none, or it is of another type.
    template <class Message>
    std::optional<Message> take() {
        if (received.empty()) return std::nullopt;
        const auto message = rendezvous::decodeToClient(received.front());
        const auto* wanted = message ? std::get_if<Message>(&*message) : nullptr;
        if (!wanted) return std::nullopt;
        received.erase(received.begin());
        return *wanted;
    }

    std::vector<std::string> received;
    std::optional<CloseReason> closedWith;
    int probes = 0;
    bool settled = false;

private:
    const SocketId id_;
    const ClientAddress address_;
};

}  // namespace velmora
