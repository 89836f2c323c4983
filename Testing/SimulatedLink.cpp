#include "Testing/SimulatedLink.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Testing/SimulatedHandles.h"

namespace velmora {

using namespace std::chrono_literals;

namespace {

/// A connector's way to its listener: one round trip to be ready, half of one more until the listener knows.
/// While nothing answers it tries again.
class Handshake : public std::enable_shared_from_this<Handshake> {
public:
    Handshake(SimulatedLink& link, Endpoint endpoint, QUICSetup::Parameters parameters)
        : link_(link), endpoint_(std::move(endpoint)), parameters_(std::move(parameters)) {}

    void begin(const std::shared_ptr<SimulatedEnd>& connector) {
        connector_ = connector;
        deadline_ = link_.now() + link_.handshakeTimeout;
        link_.post([self = shared_from_this()] { self->attempt(); });
    }

private:
    std::shared_ptr<SimulatedEnd> connector() const {
        auto end = connector_.lock();
        return end && !end->hasEnded() ? end : nullptr;
    }

    void attempt() {
        const auto end = connector();
        if (!end) return;
        const auto left = deadline_ - link_.now();
        if (left <= HostClock::duration{0})
            return end->end(TransportError{ETIMEDOUT, "Connection timed out"});
        if (link_.toListener.isDead || !link_.listenerFor(endpoint_)) {
            return link_.later(std::min<HostClock::duration>(left, 100ms),
                               [self = shared_from_this()] { self->attempt(); });
        }
        link_.later(link_.idleRtt(), [self = shared_from_this()] { self->becomeReady(); });
    }

    void becomeReady() {
        const auto end = connector();
        if (!end) return;
        const auto* listener = link_.listenerFor(endpoint_);
        if (!listener || link_.toConnector.isDead) return attempt();
        if (!listener->parameters.identity) {
            return end->end(TransportError{0, "the listener has no certificate"});
        }
        const std::string fingerprint = textOf(listener->parameters.identity->certificate);
        if (parameters_.verification && !QUICSetup::accepts(*parameters_.verification, fingerprint)) {
            return end->end(TransportError{0, "the certificate was refused"});
        }
        auto accepted = std::make_shared<SimulatedEnd>(link_, SimulatedEnd::Side::listener,
                                                       link_.nextRemoteAddress(parameters_.localPort));
        end->connectTo(accepted);
        link_.later(link_.toListener.conditions.delay, [self = shared_from_this(), accepted] {
            auto* listener = self->link_.listenerFor(self->endpoint_);
            const auto end = self->connector();
            if (!end) return;
            if (!listener) return end->end(TransportError{ECONNREFUSED, "Connection refused"});
            accepted->connectTo(end);
            listener->hand(SimulatedGroup::make(accepted, nullptr));
        });
    }

    SimulatedLink& link_;
    const Endpoint endpoint_;
    const QUICSetup::Parameters parameters_;
    std::weak_ptr<SimulatedEnd> connector_;
    HostClock::time_point deadline_;
};

}  // namespace

SimulatedLink::SimulatedLink(VirtualTime& time, std::uint32_t seed)
    : toListener(seed), toConnector(seed ^ 0x9e3779b9u), network_(time, "network") {}

SimulatedLink::~SimulatedLink() = default;

void SimulatedLink::setConditions(const SimulatedPath::Conditions& conditions) {
    toListener.conditions = toConnector.conditions = conditions;
}

void SimulatedLink::cut() {
    toListener.isDead = toConnector.isDead = true;
}

void SimulatedLink::restore() {
    restoration_.reset();
    toListener.isDead = toConnector.isDead = false;
    for (auto& block : std::exchange(whenAlive_, {})) network_.post(std::move(block));
}

void SimulatedLink::cutFor(HostClock::duration span) {
    cut();
    restoration_ = network_.after(span, [this] { restore(); });
}

std::shared_ptr<ConnectionGroup> SimulatedLink::connectTo(const Endpoint& endpoint,
                                                          const QUICSetup::Parameters& parameters) {
    auto end = std::make_shared<SimulatedEnd>(*this, SimulatedEnd::Side::connector, endpoint.text());
    auto handshake = std::make_shared<Handshake>(*this, endpoint, parameters);
    return SimulatedGroup::make(end, [handshake, weak = std::weak_ptr(end)] {
        if (const auto end = weak.lock()) handshake->begin(end);
    });
}

std::unique_ptr<Listener> SimulatedLink::listenOn(std::uint16_t port,
                                                  const QUICSetup::Parameters& parameters) {
    return std::make_unique<SimulatedListener>(*this, port, parameters);
}

void SimulatedLink::later(HostClock::duration delay, Queue::Block block) {
    // The block owns its own timer: nobody ever takes one back.
    auto token = std::make_shared<TimerToken>();
    *token = network_.after(delay, [token, block = std::move(block)]() mutable { block(); });
}

void SimulatedLink::whenAlive(Queue::Block block) {
    if (toListener.isDead || toConnector.isDead) {
        whenAlive_.push_back(std::move(block));
    } else {
        block();
    }
}

bool SimulatedLink::bind(SimulatedListener& listener) {
    return listeners_.emplace(listener.port, &listener).second;
}

void SimulatedLink::unbind(SimulatedListener& listener) {
    const auto bound = listeners_.find(listener.port);
    if (bound != listeners_.end() && bound->second == &listener) listeners_.erase(bound);
}

SimulatedListener* SimulatedLink::listenerFor(const Endpoint& endpoint) const {
    std::optional<std::uint16_t> port;
    if (route) {
        port = route(endpoint);
    } else if (endpoint.kind == Endpoint::Kind::hostAndPort) {
        port = endpoint.port;
    } else if (listeners_.size() == 1) {
        port = listeners_.begin()->first;
    }
    const auto bound = port ? listeners_.find(*port) : listeners_.end();
    return bound == listeners_.end() ? nullptr : bound->second;
}

std::string SimulatedLink::nextRemoteAddress(std::optional<std::uint16_t> port) {
    return fmt::format("192.0.2.7:{}", port.value_or(nextPort_++));
}

}  // namespace velmora
