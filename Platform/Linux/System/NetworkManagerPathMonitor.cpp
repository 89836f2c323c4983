#include "Platform/Linux/System/NetworkManagerPathMonitor.h"

#include <cstdint>
#include <utility>

#include "Platform/Linux/System/BusCaller.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

// NMMetered
constexpr std::uint32_t meteredYes = 1;       // the user said so
constexpr std::uint32_t meteredGuessYes = 3;  // a modem, or a phone that says that it is one

PathKind askForPath() {
    // A connection for the one call: this is asked once per viewer's connection.
    BusCaller bus(BusCaller::Bus::system, 2s);
    const BusCaller::Target manager{"org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                                    "org.freedesktop.NetworkManager"};
    const auto metered = bus.property(manager, "Metered");
    if (!metered || !g_variant_is_of_type(metered->get(), G_VARIANT_TYPE_UINT32)) return {};
    const auto value = g_variant_get_uint32(metered->get());
    return {.constrained = value == meteredYes, .expensive = value == meteredGuessYes};
}

}  // namespace

class NetworkManagerPathMonitor::Pending final : public Request {
public:
    Liveness liveness;
};

NetworkManagerPathMonitor::NetworkManagerPathMonitor(Queue& main) : main_(main) {}
NetworkManagerPathMonitor::~NetworkManagerPathMonitor() = default;

std::unique_ptr<PathMonitor::Request> NetworkManagerPathMonitor::currentPath(
    std::function<void(PathKind)> onPath) {
    auto pending = std::make_unique<Pending>();
    worker_.post([&main = main_, tell = pending->liveness.guard(std::move(onPath))]() mutable {
        main.post([tell = std::move(tell), path = askForPath()]() mutable { tell(path); });
    });
    return pending;
}

}  // namespace velmora
