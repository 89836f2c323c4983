#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Testing/SimulatedPath.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"

namespace velmora {

class SimulatedListener;

/// A network of one link, in memory and in virtual time: what listens on it and what connects over it meet by
/// port. Host and viewer of a test share it. Connections over it keep the promises of the real stack, which
/// runs the same contract suite: ordered streams with loss repaired by repetition, datagrams with the link's
/// delay, loss and limits, a window that makes bytes wait in the sender, an end after 20 s of silence.
/// No certificates are looked into: the bytes of the listener's certificate are the text of its fingerprint.
/// One link and one test thread; it outlives everything that was made on it. Equal seeds give equal runs.
class SimulatedLink final : public TransportStack {
public:
    explicit SimulatedLink(VirtualTime& time, std::uint32_t seed = 1);
    ~SimulatedLink() override;

    SimulatedPath toListener;   // from whoever connects
    SimulatedPath toConnector;  // from whoever listens

    /// Both directions at once.
    void setConditions(const SimulatedPath::Conditions& conditions);
    /// From now on everything sent is lost, until `restore`: streams repair it then, datagrams do not.
    void cut();
    void restore();
    void cutFor(HostClock::duration span);

    /// Which local port an endpoint leads to; none: nothing there answers. Unset: an address leads to its
    /// port whatever the address, a service to the one port that is listened on.
    std::function<std::optional<std::uint16_t>(const Endpoint&)> route;

    bool carriesDatagrams = true;                               // else neither side accepts them
    std::optional<std::size_t> usableDatagramFrameSize = 1165;  // what flows tell; larger ones are dropped
    HostClock::duration handshakeTimeout = std::chrono::seconds(10);
    std::size_t streamWindow = 1024 * 1024;  // what a stream's reader lets wait unread
    std::uint64_t oversizedDatagrams = 0;    // counted

    std::shared_ptr<ConnectionGroup> connectTo(const Endpoint& endpoint,
                                               const QUICSetup::Parameters& parameters) override;
    std::unique_ptr<Listener> listenOn(std::uint16_t port, const QUICSetup::Parameters& parameters) override;

    // What follows is for the parts of the simulation.

    HostClock::time_point now() const { return network_.now(); }
    HostClock::duration idleRtt() const { return toListener.conditions.delay + toConnector.conditions.delay; }
    void post(Queue::Block block) { network_.post(std::move(block)); }
    void later(HostClock::duration delay, Queue::Block block);
    /// Now, or once the link has come back.
    void whenAlive(Queue::Block block);

    bool bind(SimulatedListener& listener);  // false: its port is taken
    void unbind(SimulatedListener& listener);
    SimulatedListener* listenerFor(const Endpoint& endpoint) const;
    std::string nextRemoteAddress(std::optional<std::uint16_t> port);

private:
    VirtualQueue network_;
    std::map<std::uint16_t, SimulatedListener*> listeners_;
    std::deque<Queue::Block> whenAlive_;
    std::uint16_t nextPort_ = 50000;
    TimerToken restoration_;
};

}  // namespace velmora
