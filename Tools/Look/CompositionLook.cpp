#include "Tools/Look/CompositionLook.h"

#include <QCoreApplication>
#include <optional>
#include <utility>

#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/NetworkManagerPathMonitor.h"
#include "Platform/Linux/Web/QtWebSocket.h"
#include "Shared/EndpointResolver.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "Viewer/Session/SignalingRendezvousPath.h"

namespace velmora {

namespace {

/// Asks the local network where a service is, if it is ever asked for one: few who look want that.
class LocalNetwork {
public:
    explicit LocalNetwork(Queue& main) : main_(main) {}
    /// From any thread.
    void resolve(const Endpoint& service, std::function<void(Result<Endpoint>)> completion) {
        main_.post([this, service, completion = std::move(completion)]() mutable {
            if (!discovery_) resolver_.emplace(discovery_.emplace(), main_);
            resolver_->resolve(service, std::move(completion));
        });
    }

private:
    Queue& main_;
    std::optional<AvahiServiceDiscovery> discovery_;
    std::optional<EndpointResolver> resolver_;
};

class LinuxLookServices final : public LookServices {
public:
    explicit LinuxLookServices(const SignalingUrl& rendezvous) : rendezvous_(rendezvous) {}
    /// What runs ends before what it uses goes.
    ~LinuxLookServices() override {
        network_.reset();
        client_.end();
    }
    Queue& main() override { return main_; }
    Queue& client() override { return client_; }
    ViewerConnection::Services viewer() override {
        return {.transport = *network_,
                .preferences = preferences_,
                .paths = paths_,
                .decompressors = decompressors_,
                .makeRendezvousPath =
                    SignalingRendezvousPath::factory(rendezvous_, {sockets_, probes_, preferences_, main_})};
    }
    void run() override { QCoreApplication::exec(); }
    void stop() override { QCoreApplication::quit(); }

private:
    static inline char program_[] = "velmora-look";
    int argc_ = 1;
    char* argv_[2] = {program_, nullptr};
    QCoreApplication qt_{argc_, argv_};
    QtMainQueue main_;
    const SignalingUrl rendezvous_;
    ThreadQueue client_{"velmora.quic.client"};
    JsonPreferenceStore preferences_{JsonPreferenceStore::defaultFile()};
    NetworkManagerPathMonitor paths_{main_};
    AvcodecDecompressorFactory decompressors_{AvcodecDecompressor::Parameters{}};
    QtWebSocketFactory sockets_;
    LocalNetwork localNetwork_{main_};
    std::unique_ptr<NetworkStack> network_ = makeQuicTransportStack(
        [this](const Endpoint& service, auto found) { localNetwork_.resolve(service, std::move(found)); });
    UdpProbes probes_{*network_, rendezvous_.host(), main_};
};

}  // namespace

std::unique_ptr<LookServices> composeLook(const SignalingUrl& rendezvous) {
    return std::make_unique<LinuxLookServices>(rendezvous);
}

}  // namespace velmora
