#include "Rendezvous/WebServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <charconv>
#include <future>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Rendezvous/WebSession.h"

namespace velmora {
namespace {

namespace asio = boost::asio;
using Acceptor = asio::basic_socket_acceptor<asio::ip::tcp, asio::io_context::executor_type>;
using ErrorCode = boost::system::error_code;
using namespace std::chrono_literals;

constexpr auto patience = 3s;        // for clients to take the last word
constexpr auto acceptPause = 100ms;  // when the system has no descriptor left

Result<asio::ip::tcp::endpoint> endpointOf(std::string_view text) {
    const auto colon = text.rfind(':');
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    if (colon == std::string_view::npos) return Failure{fmt::format("{} has no port", text)};
    const auto [stop, wrong] = std::from_chars(text.data() + colon + 1, end, port);
    std::string_view host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    ErrorCode error;
    const auto address = asio::ip::make_address(std::string(host), error);
    if (error || wrong != std::errc{} || stop != end) {
        return Failure{fmt::format("{} is no numeric address with a port", text)};
    }
    return asio::ip::tcp::endpoint(address, port);
}

/// A thread with its share of the sessions.
struct Shard {
    asio::io_context io{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
    asio::steady_timer timer{io};
    std::unordered_map<SocketId, std::shared_ptr<WebSession>> sessions;  // its thread's
    std::thread thread;

    /// A copy: a session that ends takes itself out of the map.
    std::vector<std::shared_ptr<WebSession>> all() const {
        std::vector<std::shared_ptr<WebSession>> all;
        all.reserve(sessions.size());
        for (const auto& [id, session] : sessions) all.push_back(session);
        return all;
    }
    void keepBeating(std::chrono::milliseconds beat) {
        timer.expires_after(beat);
        timer.async_wait([this, beat](ErrorCode error) {
            if (error) return;
            for (const auto& session : all()) session->beat();
            keepBeating(beat);
        });
    }
};

}  // namespace

struct WebServer::Inside {
    struct Door {
        Door(Shard& shard) : acceptor(shard.io), retry(shard.io) {}
        Acceptor acceptor;
        asio::steady_timer retry;
        std::optional<ClientStream::Socket> next;
    };

    explicit Inside(WebContext& shared)
        : context(shared),
          connections(context.metrics.counter("velmora_connections_total", "Connections taken.")),
          turnedAway(context.metrics.counter("velmora_connections_refused_total",
                                             "Connections refused for want of room.")),
          pushedOut(
              context.metrics.counter("velmora_half_open_dropped_total", "Half-open ones dropped for room.")),
          open(context.metrics.gauge("velmora_connections", "Open connections.")),
          halfOpen(context.metrics.gauge("velmora_half_open",
                                         "Of these, those not known to be host or viewer.")) {}

    Status listenAt(const std::string& where);
    void accept(Door& door);
    void take(ClientStream::Socket socket, unsigned shard);
    void drop(SocketId victim);
    void begin(SocketId id, ClientAddress from, ClientStream::Socket socket);
    Shard& shardOf(SocketId id) { return *shards[static_cast<std::uint64_t>(id) % shards.size()]; }
    void count() {
        open.set(static_cast<std::int64_t>(context.budget.open()));
        halfOpen.set(static_cast<std::int64_t>(context.budget.halfOpen()));
    }

    WebContext& context;
    Counter& connections;
    Counter& turnedAway;
    Counter& pushedOut;
    Gauge& open;
    Gauge& halfOpen;
    std::vector<std::unique_ptr<Shard>> shards;
    std::list<Door> doors;  // the first shard's
    std::uint64_t taken = 0;
    std::mutex tlsLock;
    TlsContext tls;  // guarded by it
};

Status WebServer::Inside::listenAt(const std::string& where) {
    const auto endpoint = endpointOf(where);
    if (!endpoint) return endpoint.error();
    Door& door = doors.emplace_back(*shards.front());
    ErrorCode error;
    const auto failed = [&] {
        return Failure{fmt::format("can't listen at {}: {}", where, error.message())};
    };
    if (door.acceptor.open(endpoint->protocol(), error)) return failed();
    if (endpoint->address().is_v6() && door.acceptor.set_option(asio::ip::v6_only(false), error))
        return failed();
    if (door.acceptor.set_option(asio::socket_base::reuse_address(true), error)) return failed();
    if (door.acceptor.bind(*endpoint, error)) return failed();
    if (door.acceptor.listen(4096, error)) return failed();
    return Done{};
}

void WebServer::Inside::accept(Door& door) {
    // Which thread a socket belongs to is settled before it is there.
    const auto shard = static_cast<unsigned>(taken++ % shards.size());
    door.next.emplace(shards[shard]->io);
    door.acceptor.async_accept(*door.next, [this, &door, shard](ErrorCode error) {
        if (error == asio::error::operation_aborted) return;
        if (!error) {
            take(std::move(*door.next), shard);
            return accept(door);
        }
        door.retry.expires_after(acceptPause);
        door.retry.async_wait([this, &door](ErrorCode stopped) {
            if (!stopped) accept(door);
        });
    });
}

void WebServer::Inside::take(ClientStream::Socket socket, unsigned shard) {
    ErrorCode error;
    const auto remote = socket.remote_endpoint(error);
    const auto from = error ? std::nullopt : ClientAddress::parse(remote.address().to_string());
    if (!from) return;
    connections.add();
    const SocketId id{taken * shards.size() + shard};
    const bool isProxy =
        std::find(context.proxies.begin(), context.proxies.end(), from->text) != context.proxies.end();
    const auto admission = context.budget.open(id, isProxy ? std::string() : from->network);
    if (admission.victim) {
        pushedOut.add();
        drop(*admission.victim);
    }
    if (!admission.admitted) return turnedAway.add();
    asio::post(shards[shard]->io, [this, id, from = *from, socket = std::move(socket)]() mutable {
        begin(id, std::move(from), std::move(socket));
    });
}

void WebServer::Inside::begin(SocketId id, ClientAddress from, ClientStream::Socket socket) {
    TlsContext current;
    {
        const std::lock_guard hold(tlsLock);
        current = tls;
    }
    const auto session = makeWebSession(id, std::move(from), std::move(socket), current, context);
    Shard& shard = shardOf(id);
    shard.sessions[id] = session;
    session->onEnd = [this, &shard, id] {
        shard.sessions.erase(id);
        count();
    };
    count();
    session->start();
}

void WebServer::Inside::drop(SocketId victim) {
    Shard& shard = shardOf(victim);
    asio::post(shard.io, [&shard, victim] {
        const auto found = shard.sessions.find(victim);
        if (found == shard.sessions.end()) return;
        const auto session = found->second;
        session->drop();
    });
}

Result<std::unique_ptr<WebServer>> WebServer::open(Options options, WebContext& context) {
    auto inside = std::make_unique<Inside>(context);
    inside->tls = std::move(options.tls);
    for (unsigned i = 0; i < std::max(1U, options.threads); ++i) {
        inside->shards.push_back(std::make_unique<Shard>());
    }
    for (const std::string& where : options.listen) {
        if (const auto listening = inside->listenAt(where); !listening) return listening.error();
    }
    for (auto& door : inside->doors) inside->accept(door);
    for (auto& shard : inside->shards) {
        shard->keepBeating(context.timing.beat);
        shard->thread = std::thread([&io = shard->io] { io.run(); });
    }
    return std::unique_ptr<WebServer>(new WebServer(std::move(inside)));
}

WebServer::WebServer(std::unique_ptr<Inside> inside) : inside_(std::move(inside)) {}

WebServer::~WebServer() {
    for (auto& shard : inside_->shards) shard->io.stop();
    for (auto& shard : inside_->shards) {
        if (shard->thread.joinable()) shard->thread.join();
    }
    // Sessions' sockets are of a shard's io_context, and go before it.
    inside_->doors.clear();
    for (auto& shard : inside_->shards) shard->sessions.clear();
}

std::uint16_t WebServer::port() const {
    ErrorCode error;
    return inside_->doors.front().acceptor.local_endpoint(error).port();
}

void WebServer::useTls(TlsContext tls) {
    const std::lock_guard hold(inside_->tlsLock);
    inside_->tls = std::move(tls);
}

void WebServer::close() {
    asio::post(inside_->shards.front()->io, [inside = inside_.get()] {
        ErrorCode ignored;
        for (auto& door : inside->doors) {
            door.acceptor.close(ignored);
            door.retry.cancel();
        }
    });
    for (auto& shard : inside_->shards) {
        asio::post(shard->io, [&sessions = shard->sessions] {
            for (const auto& [id, session] : sessions) session->close(CloseReason::goingAway, "restarting");
        });
    }
    const auto end = HostClock::now() + patience;
    while (inside_->context.budget.open() > 0 && HostClock::now() < end) std::this_thread::sleep_for(20ms);
    for (auto& shard : inside_->shards) {
        std::promise<void> dropped;
        asio::post(shard->io, [&] {
            for (const auto& session : shard->all()) session->drop();
            dropped.set_value();
        });
        dropped.get_future().wait();
    }
}

}  // namespace velmora
