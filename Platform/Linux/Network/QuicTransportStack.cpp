#include "Platform/Linux/Network/QuicTransportStack.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>
#include <vector>

#include "Platform/Linux/Network/LocalPort.h"
#include "Platform/Linux/Network/NameResolver.h"
#include "Platform/Linux/Network/NetworkLoop.h"
#include "Platform/Linux/Network/QuicListener.h"
#include "Platform/Linux/Network/QuicSession.h"

namespace velmora {

namespace {

using Addresses = Result<std::vector<SocketAddress>>;

/// A port that only probes have used stays open this long: a hole punched from it is used by QUIC next.
constexpr std::chrono::seconds probedPortKept{10};
constexpr std::chrono::milliseconds shutdownLimit{600};  // a flush may take 500

/// The transaction of a STUN request, by which its answer is known whatever address it comes from.
std::optional<std::array<std::uint8_t, 12>> stunTransaction(ByteView payload) {
    constexpr std::array<std::uint8_t, 8> bindingRequest{0, 1, 0, 0, 0x21, 0x12, 0xa4, 0x42};
    if (payload.size() != 20 || !std::equal(bindingRequest.begin(), bindingRequest.end(), payload.begin()))
        return std::nullopt;
    std::array<std::uint8_t, 12> transaction;
    std::copy(payload.begin() + 8, payload.end(), transaction.begin());
    return transaction;
}

class QuicTransportStack final : public NetworkStack {
public:
    explicit QuicTransportStack(ServiceResolver resolveService)
        : resolveService_(std::move(resolveService)) {}

    ~QuicTransportStack() override {
        loop_->finish([ports = ports_] { return !ports->isFlushing(); }, shutdownLimit,
                      [ports = ports_] { ports->closeAll(); });
        ports_->clear();
    }

    std::shared_ptr<ConnectionGroup> connectTo(const Endpoint& endpoint,
                                               const QUICSetup::Parameters& parameters) override {
        auto session = std::make_shared<QuicSession>(loop_, QuicConnection::Parameters{});
        auto begin = [session, endpoint, parameters, loop = loop_, ports = ports_,
                      resolver = resolveService_] {
            // A name or service is found elsewhere; the network thread takes up what was found.
            findAddresses(endpoint, resolver, [session, parameters, loop, ports](Addresses found) {
                loop->post([session, parameters, ports, found = std::move(found)] {
                    connect(*session, parameters, *ports, found);
                });
            });
        };
        return std::make_shared<QuicGroup>(std::move(session), std::move(begin));
    }

    std::unique_ptr<Listener> listenOn(std::uint16_t port, const QUICSetup::Parameters& parameters) override {
        return std::make_unique<QuicListener>(loop_, ports_, port, parameters);
    }

    void exchange(Datagram datagram, Queue& queue, UniqueFunction<void(Outcome)> completion) override {
        // Shared, since it travels through copyable closures; called by exactly one of them.
        auto tell = [&queue, completion = std::make_shared<UniqueFunction<void(Outcome)>>(
                                 std::move(completion))](Outcome outcome) {
            queue.post(
                [completion, outcome = std::move(outcome)]() mutable { (*completion)(std::move(outcome)); });
        };
        const auto host = datagram.host;
        const auto port = datagram.port;
        resolveHost(host, port,
                    [datagram = std::move(datagram), tell, loop = loop_, ports = ports_](Addresses found) {
                        // Through the network thread in any case: once it has ended, the queue may have, too.
                        loop->post([datagram, tell, ports, found = std::move(found)] {
                            if (!found) return tell(found.error());
                            exchangeNow(*ports, datagram, preferIPv4(*found), tell);
                        });
                    });
    }

private:
    static void findAddresses(const Endpoint& endpoint, const ServiceResolver& resolver,
                              std::function<void(Addresses)> completion) {
        if (endpoint.kind == Endpoint::Kind::hostAndPort)
            return resolveHost(endpoint.host, endpoint.port, std::move(completion));
        if (!resolver)
            return completion(Failure{fmt::format("{}: no way to find services", endpoint.text())});
        resolver(endpoint, [completion = std::move(completion)](Result<Endpoint> found) {
            if (!found) return completion(found.error());
            resolveHost(found->host, found->port, completion);
        });
    }

    static void connect(QuicSession& session, const QUICSetup::Parameters& parameters, LocalPorts& ports,
                        const Addresses& found) {
        if (!found) return session.failBeforeConnecting({found.error().code, found.error().text});
        auto tls = QuicTls::forClient(parameters.verification);
        if (!tls) return session.failBeforeConnecting({tls.error().code, tls.error().text});
        const auto port = ports.open(parameters.localPort.value_or(0));
        if (!port) return session.failBeforeConnecting({port.error().code, port.error().text});
        session.connectTo(*found, **port, *tls, HostClock::now());
    }

    /// Probes are about the way through an IPv4 NAT.
    static SocketAddress preferIPv4(const std::vector<SocketAddress>& addresses) {
        const auto four =
            std::find_if(addresses.begin(), addresses.end(), [](const auto& a) { return a.isIPv4(); });
        return four == addresses.end() ? addresses.front() : *four;
    }

    static void exchangeNow(LocalPorts& ports, const Datagram& datagram, const SocketAddress& to,
                            const std::function<void(Outcome)>& tell) {
        const auto port = ports.open(datagram.localPort);
        if (!port) return tell(port.error());
        const auto now = HostClock::now();
        (*port)->keepUntil(now + probedPortKept);
        (*port)->send(datagram.payload, to);
        if (datagram.waitForReply.count() <= 0) return tell(Outcome(std::optional<Bytes>()));
        (*port)->expectReply(
            {.to = to,
             .transaction = stunTransaction(datagram.payload),
             .deadline = now + datagram.waitForReply,
             .onReply = [tell](std::optional<Bytes> reply) { tell(Outcome(std::move(reply))); }});
    }

    const ServiceResolver resolveService_;
    const std::shared_ptr<NetworkLoop> loop_ = std::make_shared<NetworkLoop>("net");
    const std::shared_ptr<LocalPorts> ports_ = std::make_shared<LocalPorts>(loop_);
};

}  // namespace

std::unique_ptr<NetworkStack> makeQuicTransportStack(ServiceResolver resolveService) {
    return std::make_unique<QuicTransportStack>(std::move(resolveService));
}

}  // namespace velmora
