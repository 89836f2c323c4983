// velmora-rendezvous: builds the service by its options, and ends it on a signal.

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "Rendezvous/MeetingPoint.h"
#include "Rendezvous/Metrics.h"
#include "Rendezvous/NatsLink.h"
#include "Rendezvous/NodeLink.h"
#include "Rendezvous/Options.h"
#include "Rendezvous/RelayTable.h"
#include "Rendezvous/SeenFile.h"
#include "Rendezvous/SeenHosts.h"
#include "Rendezvous/ServiceLog.h"
#include "Rendezvous/TlsContext.h"
#include "Rendezvous/UdpService.h"
#include "Rendezvous/WebServer.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr auto seenInterval = 60s;          // between writes of the list
constexpr std::size_t ownDescriptors = 64;  // besides clients' sockets

SeenHosts::Time wallClock() {
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

/// As many clients as descriptors allow, once the limit is as high as it may be.
std::size_t connectionsPossible() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1000;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const auto most = std::min<rlim_t>(limit.rlim_cur, 1'000'000);
    return most > 2 * ownDescriptors ? most - ownDescriptors : ownDescriptors;
}

bool isLoopback(const std::string& listen) {
    return listen.starts_with("127.") || listen.starts_with("[::1]");
}

/// All that the process is made of, in the order of building.
class Service {
public:
    explicit Service(Options options) : options_(std::move(options)) {}
    ~Service() {
        if (web_) web_->close();
        logic_.runSync([this] {
            if (point_) point_->refreshSeen();
            point_.reset();
            saveTimer_.reset();
        });
        saveSeen();
        logic_.end();  // sessions that it still held go before their sockets' threads do
        writer_.end();
    }

    Status open() {
        if (options_.listen.empty()) {
            options_.listen = {options_.certificate.empty() ? "127.0.0.1:8080" : "[::]:443"};
        }
        const bool local = std::all_of(options_.listen.begin(), options_.listen.end(), isLoopback);
        if (options_.certificate.empty() && !local && !options_.plain) {
            return Failure{
                "others than this machine need TLS: give --certificate and --key, or --plain behind a proxy"};
        }
        if (options_.publicAddress.empty() && local) options_.publicAddress = "127.0.0.1";
        if (options_.threads == 0) options_.threads = std::max(1U, std::thread::hardware_concurrency());
        if (!options_.seenFile.empty()) {
            if (const auto read = readSeenFile(options_.seenFile, seen_, wallClock()); !read)
                return read.error();
            ownsSeenFile_ = true;
        }
        if (const auto linked = openLink(); !linked) return linked.error();
        if (const auto bound = openUdp(); !bound) return bound.error();
        openMeetingPoint();
        return openWeb();
    }

    void reload() {
        if (options_.certificate.empty()) return;
        auto tls = loadTlsContext(options_.certificate, options_.key);
        if (!tls) return serviceLog(fmt::format("the old certificate stays: {}", tls.error().text));
        web_->useTls(*tls);
        serviceLog("certificate read again");
    }

private:
    Status openLink() {
        link_ = std::make_unique<NoNodeLink>();
        if (options_.nats.empty()) return Done{};
        auto nats = NatsLink::open(options_.nats, logic_, metrics_);
        if (!nats) return nats.error();
        nats_ = nats->get();
        link_ = std::move(*nats);
        return Done{};
    }
    Status openUdp() {
        if (!options_.udp) return Done{};
        RelayTable::Parameters parameters;
        if (!options_.relayPorts.empty()) parameters.ports = options_.relayPorts;
        relays_.emplace(std::move(parameters));
        const auto threads =
            std::min<unsigned>(options_.threads, static_cast<unsigned>(relays_->ports().size()));
        auto udp = UdpService::open(
            {.address = options_.udpAddress, .stunPort = options_.stunPort, .threads = threads}, *relays_,
            metrics_);
        if (!udp) return udp.error();
        udp_ = std::move(*udp);
        return Done{};
    }
    std::optional<rendezvous::Relay> relayFor(HostNumber host) {
        if (!relays_ || options_.publicAddress.empty()) return std::nullopt;
        auto ticket = relays_->issue(hostIdOf(host), HostClock::now());
        if (!ticket) return std::nullopt;
        return rendezvous::Relay{options_.publicAddress, ticket->port, std::move(ticket->token)};
    }
    void openMeetingPoint() {
        MeetingPoint::Parameters parameters;
        parameters.guesses.attemptsOfSource = options_.joinsOfAddress;
        parameters.guesses.registrationsOfSource = options_.registrationsOfAddress;
        logic_.runSync([&] {
            point_ = std::make_unique<MeetingPoint>(
                MeetingPoint::Services{.queue = logic_,
                                       .link = *link_,
                                       .seen = seen_,
                                       .metrics = metrics_,
                                       .clock = wallClock,
                                       .relay = [this](HostNumber host) { return relayFor(host); }},
                parameters);
            keepSaving();
        });
    }
    Status openWeb() {
        WebServer::Options web{.listen = options_.listen, .tls = nullptr, .threads = options_.threads};
        if (!options_.certificate.empty()) {
            auto tls = loadTlsContext(options_.certificate, options_.key);
            if (!tls) return tls.error();
            web.tls = *tls;
        }
        SocketBudget::Parameters sockets{.mostOfSource = options_.connectionsOfAddress};
        const auto possible = connectionsPossible();
        sockets.most = options_.connections == 0 ? possible : std::min(options_.connections, possible);
        budget_.emplace(sockets);
        context_.emplace(WebContext{.point = *point_,
                                    .logic = logic_,
                                    .metrics = metrics_,
                                    .budget = *budget_,
                                    .proxies = options_.proxies,
                                    .metricsReaders = options_.metricsReaders,
                                    .health = [this] { return health(); }});
        auto opened = WebServer::open(std::move(web), *context_);
        if (!opened) return opened.error();
        web_ = std::move(*opened);
        serviceLog(fmt::format("listening at {} (port {}), {}", fmt::join(options_.listen, ", "),
                               web_->port(), options_.certificate.empty() ? "without TLS" : "TLS"));
        return Done{};
    }
    std::string health() const {
        const std::string_view nats = !nats_ ? "off" : nats_->isUp() ? "up" : "down";
        return fmt::format("{{\"status\":\"ok\",\"nats\":\"{}\",\"connections\":{}}}\n", nats,
                           budget_->open());
    }

    // The logic's queue
    void keepSaving() {
        if (options_.seenFile.empty()) return;
        saveTimer_ = logic_.after(seenInterval, [this] {
            point_->refreshSeen();
            seen_.prune(wallClock());
            // The disk may be slow; nobody waits for it here.
            writer_.post([this, text = seen_.text()] { write(text); });
            keepSaving();
        });
    }
    void saveSeen() {
        if (ownsSeenFile_) writer_.runSync([this] { write(seen_.text()); });
    }
    void write(const std::string& text) {
        const auto written = writeSeenFile(options_.seenFile, text);
        if (!written) serviceLog(fmt::format("the list of seen hosts isn't kept: {}", written.error().text));
    }

    Options options_;
    Metrics metrics_;
    SeenHosts seen_;
    bool ownsSeenFile_ = false;  // it was read, or can be made
    ThreadQueue writer_{"velmora.seen"};
    ThreadQueue logic_{"velmora.meeting"};
    std::unique_ptr<NodeLink> link_;
    NatsLink* nats_ = nullptr;
    std::optional<RelayTable> relays_;
    std::unique_ptr<UdpService> udp_;
    std::unique_ptr<MeetingPoint> point_;
    TimerToken saveTimer_;
    std::optional<SocketBudget> budget_;
    std::optional<WebContext> context_;
    std::unique_ptr<WebServer> web_;
};

int run(int argc, char** argv) {
    const auto options =
        parseOptions(std::span<const char* const>(argv + 1, static_cast<std::size_t>(argc - 1)));
    if (!options) {
        fmt::print(stderr, "velmora-rendezvous: {}\nTry --help.\n", options.error().text);
        return 2;
    }
    if (options->help) {
        fmt::print("{}", optionsHelp());
        return 0;
    }
    // Before any thread is there, so that all of them leave these to us.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    Service service(*options);
    if (const auto opened = service.open(); !opened) {
        fmt::print(stderr, "velmora-rendezvous: {}\n", opened.error().text);
        return 1;
    }
    for (int signal = 0; sigwait(&signals, &signal) == 0;) {
        if (signal != SIGHUP) break;
        service.reload();
    }
    serviceLog("ending");
    return 0;
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    return velmora::run(argc, argv);
}
