#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/Network/NetworkLoop.h"
#include "Platform/Linux/Network/QuicAdmission.h"
#include "Platform/Linux/Network/QuicTls.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

class QuicSession;

/// One local UDP port and everything that shares its only socket: connections of a listener, connections to
/// hosts, and single datagrams that wait for a reply. Lives on the network thread, owned by LocalPorts.
///
/// A packet goes to the first that fits: the connection whose ID it carries; "VLACK" and "VLPUNCH", exactly;
/// a waiting STUN request whose transaction it answers; a stranger's first QUIC packet, if somebody listens;
/// whoever waits for a reply from its source. (A first packet is looked for before a reply: a relay's answer
/// and a viewer's connection through that relay have the same source, and no reply looks like it.) The rest
/// is dropped. The QUIC bit 0x40 is never looked at: see QuicConnection.cpp.
class LocalPort final : public NetworkLoop::Source {
public:
    using TimePoint = HostClock::time_point;

    struct Acceptor {
        std::shared_ptr<const QuicTls> tls;
        QuicConnection::Parameters connection;
        /// A connection of a stranger has completed its handshake.
        std::function<void(std::shared_ptr<QuicSession>)> onReady;
    };
    struct Probe {
        SocketAddress to;
        std::optional<std::array<std::uint8_t, 12>> transaction;  // of a STUN request
        TimePoint deadline;
        std::function<void(std::optional<Bytes>)> onReply;  // once; none: nothing came in time
    };

    LocalPort(std::shared_ptr<NetworkLoop> loop, std::unique_ptr<UdpSocket> socket);
    ~LocalPort() override;

    std::uint16_t number() const { return socket_->port(); }
    const SocketAddress& localAddress() const { return socket_->local(); }

    /// False if somebody listens already.
    bool listen(Acceptor acceptor);
    void stopListening();

    void adopt(std::shared_ptr<QuicSession> session);
    void route(std::string_view id, QuicSession& session) { routes_[std::string(id)] = &session; }
    void unroute(std::string_view id) { routes_.erase(std::string(id)); }

    void send(ByteView payload, const SocketAddress& to);
    void expectReply(Probe probe);

    /// Nobody uses it: to be destroyed, once `keepUntil` has passed.
    bool isIdle() const { return !acceptor_ && sessions_.empty() && probes_.empty(); }
    void keepUntil(TimePoint time) { keepUntil_ = std::max(keepUntil_, time); }
    TimePoint keptUntil() const { return keepUntil_; }
    std::function<void()> onIdle;

    void closeAll();
    bool isFlushing() const;

    int descriptor() const override { return socket_->descriptor(); }
    bool wantsToSend() const override { return !outgoing_.empty(); }
    TimePoint deadline() const override;
    void readable(TimePoint now) override;
    void service(TimePoint now) override;

private:
    void dispatch(ByteView packet, const SocketAddress& from, const SocketAddress& to, TimePoint now);
    void accept(ByteView packet, const SocketAddress& from, const SocketAddress& to, TimePoint now);
    bool answerProbe(ByteView packet, const SocketAddress& from, bool byTransaction);
    void expireProbes(TimePoint now);
    void flush();

    const std::shared_ptr<NetworkLoop> loop_;
    const std::unique_ptr<UdpSocket> socket_;
    PacketBatch outgoing_;
    std::optional<Acceptor> acceptor_;
    QuicAdmission admission_{{}};
    std::vector<std::shared_ptr<QuicSession>> sessions_;
    std::unordered_map<std::string, QuicSession*> routes_;
    std::vector<Probe> probes_;
    TimePoint keepUntil_{};
    bool idleTold_ = false;
};

/// The local ports in use, by number. Whoever names a port that is open shares its socket; a port is closed
/// when nobody uses it any more. Lives on the network thread.
class LocalPorts {
public:
    explicit LocalPorts(std::shared_ptr<NetworkLoop> loop) : loop_(std::move(loop)) {}

    /// `number` 0: one that the system chooses. The failure's code is the errno.
    Result<LocalPort*> open(std::uint16_t number);
    void closeAll();
    bool isFlushing() const;
    void clear();

private:
    void removeIdle();

    const std::shared_ptr<NetworkLoop> loop_;
    std::map<std::uint16_t, std::unique_ptr<LocalPort>> ports_;
};

}  // namespace velmora
