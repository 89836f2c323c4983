#include "Benchmarks/Rendezvous/RelayLoad.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

#include "Benchmarks/ProcessUse.h"
#include "Benchmarks/Rendezvous/SocketLoop.h"
#include "Rendezvous/UdpService.h"
#include "VelmoraKit/Core/SampleSet.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t datagramBytes = 1'200;
constexpr std::size_t runLength = 16;  // a frame at 8 Mbit/s and 60 a second is 14, sent in one call

sockaddr_in addressOf(in_addr ip, std::uint16_t port) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = ip};
}

class Socket {
public:
    explicit Socket(in_addr ip) : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in own = addressOf(ip, 0);
        const int buffer = 4 << 20;
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) std::exit(1);
    }
    ~Socket() { ::close(descriptor_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const { return descriptor_; }
    sockaddr_in address() const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&own), &size);
        return own;
    }
    void glueArrivals() { setOption(UDP_GRO, 1); }
    void sendInRunsOf(std::size_t size) { setOption(UDP_SEGMENT, static_cast<int>(size)); }
    void send(ByteView bytes, const sockaddr_in& to) {
        sendto(descriptor_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    /// Bytes of what arrived; none within `limit`.
    std::optional<std::size_t> receive(std::span<std::uint8_t> into, std::chrono::milliseconds limit) {
        pollfd readable{descriptor_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
        const ssize_t size = recv(descriptor_, into.data(), into.size(), 0);
        return size < 0 ? std::nullopt : std::optional(static_cast<std::size_t>(size));
    }

private:
    void setOption(int name, int value) { setsockopt(descriptor_, IPPROTO_UDP, name, &value, sizeof value); }
    const int descriptor_;
};

/// Runs UdpService in a child, which ends with us, and fetches tickets from it.
class RelayProcess {
public:
    explicit RelayProcess(std::size_t tickets) {
        int ends[2];
        if (pipe(ends) != 0) std::exit(1);
        child_ = fork();
        if (child_ == 0) serve(ends[1], tickets);
        ::close(ends[1]);
        tickets_.resize(tickets);
        for (Ticket& ticket : tickets_) {
            if (read(ends[0], &ticket, sizeof ticket) != sizeof ticket) failed_ = true;
        }
        ::close(ends[0]);
    }
    ~RelayProcess() { kill(child_, SIGKILL); }
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

    struct Ticket {
        std::uint16_t port;
        char token[32];
    };
    bool hasFailed() const { return failed_; }
    const Ticket& ticket(std::size_t index) const { return tickets_[index]; }
    ProcessUse use() const { return useOf(child_); }

private:
    [[noreturn]] static void serve(int pipe, std::size_t tickets) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        RelayTable table({.ports = {23'420, 23'421, 23'422, 23'423},
                          .bytesPerSecond = 10'000'000'000,
                          .burst = 1'000'000'000});
        Metrics metrics;
        const auto service = UdpService::open({.address = "127.0.0.1", .stunPort = 0}, table, metrics);
        if (!service) {
            fmt::print(stderr, "{}\n", service.error().text);
            _exit(1);
        }
        for (std::size_t i = 0; i < tickets; ++i) {
            const auto issued = table.issue(std::to_string(i), HostClock::now()).value();
            Ticket ticket{.port = issued.port};
            std::memcpy(ticket.token, issued.token.data(), sizeof ticket.token);
            if (write(pipe, &ticket, sizeof ticket) != sizeof ticket) _exit(1);
        }
        for (;;) pause();
    }

    pid_t child_ = -1;
    std::vector<Ticket> tickets_;
    bool failed_ = false;
};

/// Host and viewer of one session, as far as a relay sees them.
class RelayedPair {
public:
    RelayedPair(const RelayProcess::Ticket& ticket, std::uint32_t index)
        : host(loopbackAddress(2 * index)),
          viewer(loopbackAddress(2 * index + 1)),
          relay(addressOf({htonl(INADDR_LOOPBACK)}, ticket.port)) {
        const Bytes registration = bytesOf("VLREG" + std::string(ticket.token, sizeof ticket.token));
        Bytes answer(100);
        for (Socket* side : {&host, &viewer}) {
            side->send(registration, relay);
            registered = registered && side->receive(answer, 5s) == 5;
        }
        host.send(viewOf("hello"), relay);
        viewer.send(viewOf("hello"), relay);
        registered = registered && viewer.receive(answer, 5s) && host.receive(answer, 5s);
    }
    Socket host, viewer;
    const sockaddr_in relay;
    bool registered = true;
};
using Pairs = std::vector<std::unique_ptr<RelayedPair>>;

struct Flow {
    double offered = 0, delivered = 0;  // datagrams a second
    double relayShare = 0;              // of a core
};

/// Every host sends runs to its viewer, at `bitRate` in all, or as fast as it can.
Flow flood(const RelayProcess& relay, Pairs& pairs, std::size_t run, std::optional<double> bitRate,
           std::chrono::duration<double> length) {
    std::atomic<bool> over = false;
    std::uint64_t offered = 0;
    std::atomic<std::uint64_t> delivered = 0;
    std::thread receiver([&] {
        std::vector<pollfd> readable;
        for (const auto& pair : pairs) readable.push_back({pair->viewer.descriptor(), POLLIN, 0});
        Bytes buffer(65'536);
        while (!over) {
            if (poll(readable.data(), readable.size(), 50) <= 0) continue;
            for (const pollfd& one : readable) {
                if (!one.revents) continue;
                ssize_t size = 0;
                while ((size = recv(one.fd, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0)
                    delivered += (static_cast<std::size_t>(size) + datagramBytes - 1) / datagramBytes;
            }
        }
    });
    std::this_thread::sleep_for(300ms);  // what an earlier flood left on its way
    delivered = 0;
    const Bytes bytes(datagramBytes * run, 'd');
    const double cpuBefore = relay.use().cpuSeconds;
    const auto start = HostClock::now();
    std::chrono::duration<double> elapsed{};
    for (std::size_t i = 0; elapsed < length; ++i) {
        auto& pair = *pairs[i % pairs.size()];
        pair.host.send(bytes, pair.relay);
        offered += run;
        elapsed = HostClock::now() - start;
        if (bitRate) {
            const std::chrono::duration<double> due(static_cast<double>(offered * datagramBytes * 8) /
                                                    *bitRate);
            if (due > elapsed) std::this_thread::sleep_for(due - elapsed);
        }
    }
    std::this_thread::sleep_for(100ms);
    over = true;
    receiver.join();
    const double cpu = relay.use().cpuSeconds - cpuBefore;
    return {static_cast<double>(offered) / elapsed.count(), static_cast<double>(delivered) / elapsed.count(),
            cpu / elapsed.count()};
}

/// Half a round trip of single datagrams, one a millisecond, in milliseconds.
SampleSet delays(Socket& near, const sockaddr_in& towards, Socket& far,
                 const std::optional<sockaddr_in>& back, int count) {
    std::atomic<bool> over = false;
    std::thread echo([&] {
        Bytes buffer(2'000);
        while (!over) {
            if (const auto size = far.receive(buffer, 50ms))
                far.send(ByteView(buffer).first(*size), back ? *back : near.address());
        }
    });
    SampleSet samples;
    Bytes packet(datagramBytes, 'p');
    for (int i = 0; i < count; ++i) {
        const auto sent = HostClock::now();
        near.send(packet, towards);
        if (near.receive(packet, 100ms))
            samples.add(std::chrono::duration<double, std::milli>(HostClock::now() - sent).count() / 2);
        std::this_thread::sleep_until(std::chrono::steady_clock::now() + 1ms);
    }
    over = true;
    echo.join();
    return samples;
}

void print(std::string_view what, const Flow& flow) {
    fmt::print(
        "{:32} {:8.0f} offered/s {:8.0f} delivered/s  relay {:4.0f} % of a core  {:8.0f} datagrams/s per "
        "core\n",
        what, flow.offered, flow.delivered, 100 * flow.relayShare, flow.delivered / flow.relayShare);
}

void print(std::string_view what, const SampleSet& samples) {
    fmt::print("{:32} p50 {:.3f} ms, p95 {:.3f} ms, p99 {:.3f} ms\n", what, samples.percentile(50),
               samples.percentile(95), samples.percentile(99));
}

}  // namespace

bool measureRelay(const RelayLoadOptions& options) {
    const RelayProcess relay(options.pairs + 1);
    if (relay.hasFailed()) return false;
    Pairs pairs;
    for (std::size_t i = 0; i < options.pairs; ++i)
        pairs.push_back(std::make_unique<RelayedPair>(relay.ticket(i), static_cast<std::uint32_t>(i)));
    RelayedPair probe(relay.ticket(options.pairs), static_cast<std::uint32_t>(options.pairs));
    for (const auto& pair : pairs) {
        if (!pair->registered) return false;
    }
    const std::chrono::duration<double> length(options.seconds);
    const int probes = static_cast<int>(options.seconds * 500);

    print("one by one", flood(relay, pairs, 1, std::nullopt, length));
    for (const auto& pair : pairs) {
        pair->host.sendInRunsOf(datagramBytes);
        pair->viewer.glueArrivals();
    }
    print(fmt::format("in runs of {}", runLength), flood(relay, pairs, runLength, std::nullopt, length));
    print("in runs, 400 Mbit/s", flood(relay, pairs, runLength, 400e6, length));

    print("one way, without a relay",
          delays(probe.viewer, probe.host.address(), probe.host, std::nullopt, probes));
    print("one way, relayed", delays(probe.viewer, probe.relay, probe.host, probe.relay, probes));
    std::thread others([&] { flood(relay, pairs, runLength, 100e6, length * 1.1); });
    print("the same beside 100 Mbit/s", delays(probe.viewer, probe.relay, probe.host, probe.relay, probes));
    others.join();
    fmt::print("relay's memory with {} pairs: {:.0f} MB\n", options.pairs + 1, relay.use().megabytes);
    return true;
}

}  // namespace velmora
