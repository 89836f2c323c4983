#include "Platform/Linux/Network/LocalPort.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Platform/Linux/Network/QuicSession.h"
#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora {

namespace {

constexpr std::size_t stunHeader = 20;
constexpr std::array<std::uint8_t, 4> stunCookie{0x21, 0x12, 0xa4, 0x42};
constexpr std::size_t minInitialBytes = 1200;
constexpr std::size_t maxSessions = 128;  // strangers may complete handshakes, too; about 90 KiB each

bool isStun(ByteView packet) {
    return packet.size() >= stunHeader && (packet[0] & 0xc0) == 0 &&
           std::equal(stunCookie.begin(), stunCookie.end(), packet.begin() + 4);
}

}  // namespace

LocalPort::LocalPort(std::shared_ptr<NetworkLoop> loop, std::unique_ptr<UdpSocket> socket)
    : loop_(std::move(loop)), socket_(std::move(socket)) {
    loop_->add(*this);
}

LocalPort::~LocalPort() {
    loop_->remove(*this);
}

bool LocalPort::listen(Acceptor acceptor) {
    if (acceptor_) return false;
    acceptor_ = std::move(acceptor);
    idleTold_ = false;
    return true;
}

void LocalPort::stopListening() {
    acceptor_.reset();
}

void LocalPort::adopt(std::shared_ptr<QuicSession> session) {
    sessions_.push_back(std::move(session));
    idleTold_ = false;
}

void LocalPort::send(ByteView payload, const SocketAddress& to) {
    outgoing_.leaveFrom(std::nullopt);
    outgoing_.add(payload, to);
}

void LocalPort::expectReply(Probe probe) {
    probes_.push_back(std::move(probe));
    idleTold_ = false;
}

void LocalPort::closeAll() {
    acceptor_.reset();
    for (const auto& session : sessions_) session->closeNow();
    for (Probe& probe : std::exchange(probes_, {})) probe.onReply(std::nullopt);
}

bool LocalPort::isFlushing() const {
    return !outgoing_.empty() || std::any_of(sessions_.begin(), sessions_.end(),
                                             [](const auto& session) { return session->isFlushing(); });
}

LocalPort::TimePoint LocalPort::deadline() const {
    if (!outgoing_.empty()) return TimePoint::max();  // the socket is full: its room is what we wait for
    auto deadline = TimePoint::max();
    for (const auto& session : sessions_) deadline = std::min(deadline, session->deadline());
    for (const Probe& probe : probes_) deadline = std::min(deadline, probe.deadline);
    if (isIdle() && !idleTold_) deadline = std::min(deadline, keepUntil_);
    return deadline;
}

void LocalPort::readable(TimePoint now) {
    UdpSocket::Arrival arrival = [this, now](ByteView packet, const SocketAddress& from,
                                             const SocketAddress& to) { dispatch(packet, from, to, now); };
    socket_->receive(arrival);
}

void LocalPort::service(TimePoint now) {
    flush();
    for (std::size_t i = 0; i < sessions_.size(); ++i) {
        sessions_[i]->service(outgoing_, outgoing_.empty(), now);
        flush();
    }
    std::erase_if(sessions_, [](const auto& session) { return session->isGone(); });
    expireProbes(now);
    if (!isIdle() || idleTold_ || now < keepUntil_ || !onIdle) return;
    idleTold_ = true;
    onIdle();
}

void LocalPort::flush() {
    if (outgoing_.empty()) return;
    socket_->send(outgoing_);
    const auto [error, to] = socket_->takeLastError();
    if (error == 0) return;
    for (const auto& session : sessions_) session->sendFailed(to, error);
}

void LocalPort::dispatch(ByteView packet, const SocketAddress& from, const SocketAddress& to, TimePoint now) {
    ngtcp2_version_cid ids{};
    const int status =
        ngtcp2_pkt_decode_version_cid(&ids, packet.data(), packet.size(), QuicConnection::idLength);
    if (status == 0 || status == NGTCP2_ERR_VERSION_NEGOTIATION) {
        const auto known = routes_.find(std::string(reinterpret_cast<const char*>(ids.dcid), ids.dcidlen));
        if (known != routes_.end()) return known->second->receive(packet, from, to, now);
    }
    if (relayTags::isPunch(packet)) return;
    if (relayTags::isAcknowledgement(packet)) {
        answerProbe(packet, from, false);
        return;
    }
    if (isStun(packet) && answerProbe(packet, from, true)) return;
    const bool mayBeInitial = packet.size() >= minInitialBytes && (packet[0] & 0x80) != 0;
    if (mayBeInitial && acceptor_) return accept(packet, from, to, now);
    answerProbe(packet, from, false);
}

void LocalPort::accept(ByteView packet, const SocketAddress& from, const SocketAddress& to, TimePoint now) {
    if (sessions_.size() >= maxSessions) return;
    const auto halfOpen = static_cast<std::size_t>(std::count_if(
        sessions_.begin(), sessions_.end(), [](const auto& session) { return session->isHalfOpen(); }));
    outgoing_.leaveFrom(to);
    const auto initial = admission_.consider(packet, from, halfOpen, outgoing_, now);
    if (!initial) return;
    auto session = std::make_shared<QuicSession>(loop_, acceptor_->connection);
    if (!session->accept(*initial, from, *this, acceptor_->tls, acceptor_->onReady, now)) {
        std::erase_if(routes_, [&](const auto& route) { return route.second == session.get(); });
        return;
    }
    sessions_.push_back(session);
    session->receive(packet, from, to, now);
}

bool LocalPort::answerProbe(ByteView packet, const SocketAddress& from, bool byTransaction) {
    const auto fits = [&](const Probe& probe) {
        if (!byTransaction) return probe.to == from;
        return probe.transaction &&
               std::equal(probe.transaction->begin(), probe.transaction->end(), packet.begin() + 8);
    };
    const auto probe = std::find_if(probes_.begin(), probes_.end(), fits);
    if (probe == probes_.end()) return false;
    const auto onReply = std::move(probe->onReply);
    probes_.erase(probe);
    onReply(Bytes(packet.begin(), packet.end()));
    return true;
}

void LocalPort::expireProbes(TimePoint now) {
    std::vector<Probe> expired;
    for (std::size_t i = 0; i < probes_.size();) {
        if (probes_[i].deadline > now) {
            ++i;
            continue;
        }
        expired.push_back(std::move(probes_[i]));
        probes_.erase(probes_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    for (Probe& probe : expired) probe.onReply(std::nullopt);
}

Result<LocalPort*> LocalPorts::open(std::uint16_t number) {
    if (const auto found = ports_.find(number); number != 0 && found != ports_.end())
        return found->second.get();
    auto socket = UdpSocket::bindTo(number);
    if (!socket) return socket.error();
    auto port = std::make_unique<LocalPort>(loop_, std::move(socket).value());
    LocalPort* const opened = port.get();
    opened->onIdle = [this] { loop_->post([this] { removeIdle(); }); };
    ports_[opened->number()] = std::move(port);
    return opened;
}

void LocalPorts::removeIdle() {
    const auto now = HostClock::now();
    std::erase_if(ports_, [now](const auto& entry) {
        return entry.second->isIdle() && entry.second->keptUntil() <= now;
    });
}

void LocalPorts::closeAll() {
    for (const auto& [number, port] : ports_) port->closeAll();
}

bool LocalPorts::isFlushing() const {
    return std::any_of(ports_.begin(), ports_.end(),
                       [](const auto& entry) { return entry.second->isFlushing(); });
}

void LocalPorts::clear() {
    ports_.clear();
}

}  // namespace velmora
