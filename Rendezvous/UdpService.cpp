#include "Rendezvous/UdpService.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr int bufferBytes = 2 << 20;  // some 10 ms of a busy port: what waits longer is better dropped
constexpr std::size_t slots = 32;     // datagrams, or runs of them, per system call
constexpr std::size_t slotBytes = 65536;
constexpr int roundsPerWake = 8;  // then the worker's other ports have their turn
constexpr auto tick = 1s;

template <class T>
void setOption(int socket, int level, int name, T value) {
    setsockopt(socket, level, name, &value, sizeof value);  // each is a gain, none a need
}

/// A socket address for IPv6, or for IPv4 where the kernel has nothing else.
union SocketName {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

SocketName nameOf(const UdpAddress& address, bool dualStack) {
    SocketName name{};
    if (dualStack) {
        name.v6.sin6_family = AF_INET6;
        name.v6.sin6_port = htons(address.port);
        std::memcpy(&name.v6.sin6_addr, address.ip.data(), address.ip.size());
    } else {
        name.v4.sin_family = AF_INET;
        name.v4.sin_port = htons(address.port);
        std::memcpy(&name.v4.sin_addr, address.ip.data() + 12, 4);
    }
    return name;
}

socklen_t sizeOf(const SocketName& name) {
    return name.any.sa_family == AF_INET6 ? sizeof name.v6 : sizeof name.v4;
}

IpAddress mapped(const in_addr& address) {
    IpAddress ip{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    std::memcpy(ip.data() + 12, &address, 4);
    return ip;
}

UdpAddress addressOf(const SocketName& name) {
    if (name.any.sa_family == AF_INET) return {mapped(name.v4.sin_addr), ntohs(name.v4.sin_port)};
    UdpAddress address{.port = ntohs(name.v6.sin6_port)};
    std::memcpy(address.ip.data(), &name.v6.sin6_addr, address.ip.size());
    return address;
}

/// Empty: any address. None: no address.
std::optional<IpAddress> parsed(const std::string& text) {
    IpAddress ip{};
    in_addr v4;
    if (text.empty() || inet_pton(AF_INET6, text.c_str(), ip.data()) == 1) return ip;
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return mapped(v4);
    return std::nullopt;
}

struct alignas(cmsghdr) Control {
    std::array<char, CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(in6_pktinfo))> bytes;
};

}  // namespace

/// One port. Non-blocking; one thread's.
class UdpService::Socket {
public:
    static Result<std::unique_ptr<Socket>> bindTo(const IpAddress& ip, std::uint16_t port);
    ~Socket() { ::close(descriptor_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const { return descriptor_; }
    /// What waits, at most `slots` messages; borrowed until the next call on any socket of this thread.
    std::span<const RelayTable::Arrival> receive();
    void send(std::span<const RelayTable::Departure> departures);
    std::uint64_t takeUnsent() { return std::exchange(unsent_, 0); }

private:
    Socket(int descriptor, bool dualStack);
    void readControl(msghdr& header, RelayTable::Arrival& arrival) const;
    void prepare(const RelayTable::Departure& departure, std::size_t slot);
    void sendSingly(const RelayTable::Departure& departure);

    const int descriptor_;
    const bool dualStack_;
    std::uint64_t unsent_ = 0;

    // Of the thread, not of the socket: shared by its ports, which work one after another.
    struct Scratch {
        std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(slots * slotBytes);
        std::array<mmsghdr, slots> messages;
        std::array<iovec, slots> spans;
        std::array<SocketName, slots> names;
        std::array<Control, slots> controls;
        std::array<RelayTable::Arrival, slots> arrivals;
        // Answers leave while the bytes received are still borrowed.
        std::array<mmsghdr, slots> outMessages;
        std::array<iovec, slots> outSpans;
        std::array<SocketName, slots> outNames;
        std::array<Control, slots> outControls;
    };
    static Scratch& scratch() {
        thread_local auto instance = std::make_unique<Scratch>();
        return *instance;
    }
};

Result<std::unique_ptr<UdpService::Socket>> UdpService::Socket::bindTo(const IpAddress& ip,
                                                                       std::uint16_t port) {
    const auto failure = [port](int code) {
        return Failure{fmt::format("UDP port {}: {}", port, std::strerror(code)), code};
    };
    constexpr int type = SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    bool dualStack = true;
    int descriptor = ::socket(AF_INET6, type, 0);
    if (descriptor < 0 && errno == EAFNOSUPPORT) {  // a machine without IPv6
        dualStack = false;
        descriptor = ::socket(AF_INET, type, 0);
    }
    if (descriptor < 0) return failure(errno);
    std::unique_ptr<Socket> socket(new Socket(descriptor, dualStack));
    const SocketName name = nameOf({ip, port}, dualStack);
    if (bind(descriptor, &name.any, sizeOf(name)) != 0) return failure(errno);
    return socket;
}

UdpService::Socket::Socket(int descriptor, bool dualStack) : descriptor_(descriptor), dualStack_(dualStack) {
    setOption(descriptor_, SOL_SOCKET, SO_RCVBUF, bufferBytes);
    setOption(descriptor_, SOL_SOCKET, SO_SNDBUF, bufferBytes);
    setOption(descriptor_, IPPROTO_UDP, UDP_GRO, int{1});
    // Peers probe for the size of packets that the path carries: a fragment would deceive them.
    setOption(descriptor_, IPPROTO_IP, IP_MTU_DISCOVER, int{IP_PMTUDISC_PROBE});
    if (dualStack_) {
        setOption(descriptor_, IPPROTO_IPV6, IPV6_V6ONLY, int{0});
        setOption(descriptor_, IPPROTO_IPV6, IPV6_MTU_DISCOVER, int{IPV6_PMTUDISC_PROBE});
        setOption(descriptor_, IPPROTO_IPV6, IPV6_RECVPKTINFO, int{1});
    } else {
        setOption(descriptor_, IPPROTO_IP, IP_PKTINFO, int{1});
    }
}

std::span<const RelayTable::Arrival> UdpService::Socket::receive() {
    Scratch& s = scratch();
    for (std::size_t i = 0; i < slots; ++i) {
        s.spans[i] = {s.bytes.data() + i * slotBytes, slotBytes};
        s.messages[i].msg_hdr = {.msg_name = &s.names[i],
                                 .msg_namelen = sizeof s.names[i],
                                 .msg_iov = &s.spans[i],
                                 .msg_iovlen = 1,
                                 .msg_control = s.controls[i].bytes.data(),
                                 .msg_controllen = s.controls[i].bytes.size()};
    }
    const int count = recvmmsg(descriptor_, s.messages.data(), slots, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i) {
        RelayTable::Arrival& arrival = s.arrivals[i];
        arrival.from = addressOf(s.names[i]);
        arrival.bytes = {s.bytes.data() + i * slotBytes, s.messages[i].msg_len};
        arrival.segmentSize = std::max<std::size_t>(arrival.bytes.size(), 1);
        readControl(s.messages[i].msg_hdr, arrival);
    }
    return {s.arrivals.data(), static_cast<std::size_t>(std::max(count, 0))};
}

/// What the kernel tells of a message beside its bytes.
void UdpService::Socket::readControl(msghdr& header, RelayTable::Arrival& arrival) const {
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == IPPROTO_UDP && c->cmsg_type == UDP_GRO) {
            int size = 0;
            std::memcpy(&size, CMSG_DATA(c), sizeof size);
            if (size > 0) arrival.segmentSize = static_cast<std::size_t>(size);
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            std::memcpy(arrival.local.data(), CMSG_DATA(c) + offsetof(in6_pktinfo, ipi6_addr), 16);
        } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            arrival.local = mapped(info.ipi_addr);
        }
    }
}

/// An answer leaves from the address that was spoken to: with several, the system might choose another one.
void UdpService::Socket::prepare(const RelayTable::Departure& departure, std::size_t slot) {
    Scratch& s = scratch();
    s.outNames[slot] = nameOf(departure.to, dualStack_);
    s.outSpans[slot] = {const_cast<std::uint8_t*>(departure.bytes.data()), departure.bytes.size()};
    msghdr& header = s.outMessages[slot].msg_hdr;
    header = {.msg_name = &s.outNames[slot],
              .msg_namelen = sizeOf(s.outNames[slot]),
              .msg_iov = &s.outSpans[slot],
              .msg_iovlen = 1};
    auto* const control = s.outControls[slot].bytes.data();
    std::size_t used = 0;
    const auto add = [&](int level, int type, const auto& value) {
        auto* c = reinterpret_cast<cmsghdr*>(control + used);
        *c = {.cmsg_len = CMSG_LEN(sizeof value), .cmsg_level = level, .cmsg_type = type};
        std::memcpy(CMSG_DATA(c), &value, sizeof value);
        used += CMSG_SPACE(sizeof value);
    };
    if (departure.bytes.size() > departure.segmentSize)
        add(IPPROTO_UDP, UDP_SEGMENT, static_cast<std::uint16_t>(departure.segmentSize));
    if (dualStack_) {
        in6_pktinfo info{};
        std::memcpy(&info.ipi6_addr, departure.local.data(), 16);
        add(IPPROTO_IPV6, IPV6_PKTINFO, info);
    } else {
        in_pktinfo info{};
        std::memcpy(&info.ipi_spec_dst, departure.local.data() + 12, 4);
        add(IPPROTO_IP, IP_PKTINFO, info);
    }
    header.msg_control = control;
    header.msg_controllen = used;
}

void UdpService::Socket::send(std::span<const RelayTable::Departure> departures) {
    Scratch& s = scratch();
    while (!departures.empty()) {
        const std::size_t count = std::min(departures.size(), slots);
        for (std::size_t i = 0; i < count; ++i) prepare(departures[i], i);
        const int sent =
            sendmmsg(descriptor_, s.outMessages.data(), static_cast<unsigned>(count), MSG_DONTWAIT);
        if (sent > 0) {
            departures = departures.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (errno == EINTR) continue;
        const auto& first = departures.front();
        if (errno != EAGAIN && first.bytes.size() > first.segmentSize) {
            sendSingly(first);
        } else {
            ++unsent_;
        }
        departures = departures.subspan(1);
    }
}

/// A run that the interface cannot split (no checksums, a packet too large for it) may leave in pieces.
void UdpService::Socket::sendSingly(const RelayTable::Departure& departure) {
    for (std::size_t at = 0; at < departure.bytes.size(); at += departure.segmentSize) {
        auto piece = departure;
        piece.bytes =
            departure.bytes.subspan(at, std::min(departure.segmentSize, departure.bytes.size() - at));
        prepare(piece, 0);
        if (sendmsg(descriptor_, &scratch().outMessages[0].msg_hdr, MSG_DONTWAIT) < 0) ++unsent_;
    }
}

/// A thread and its ports.
class UdpService::Worker {
public:
    Worker(RelayTable& table, Metrics& metrics, StunResponder::Parameters stun);
    ~Worker();
    void addRelay(std::unique_ptr<Socket> socket, std::size_t port) {
        ports_.push_back({std::move(socket), port});
    }
    void addStun(std::unique_ptr<Socket> socket) { ports_.push_back({std::move(socket), std::nullopt}); }
    /// `keepsTable`: one of the workers lets the table forget, and tells its counts.
    enum class Duty { portsAlone, keepsTable };
    Status start(Duty duty);

private:
    struct Port {
        std::unique_ptr<Socket> socket;
        std::optional<std::size_t> relay;  // its index; none: STUN
    };
    void run();
    void serve(Port& port);
    void answerStun(const RelayTable::Arrival& arrival, HostClock::time_point now);
    void keepTable(HostClock::time_point now);

    RelayTable& table_;
    Metrics& metrics_;
    StunResponder stun_;
    std::vector<Port> ports_;
    std::vector<RelayTable::Departure> out_;
    std::vector<Bytes> answers_;  // what `out_` borrows from
    Duty duty_ = Duty::portsAlone;
    RelayTable::Counts told_;
    Counter& answered_;
    Counter& malformed_;
    Counter& limited_;
    Counter& unsent_;
    int epoll_ = -1;
    int stop_ = -1;
    std::thread thread_;
};

namespace {

constexpr const char* stunHelp = "STUN requests, by what became of them";
constexpr const char* droppedHelp = "Datagrams that the relay did not pass on, by reason";

}  // namespace

UdpService::Worker::Worker(RelayTable& table, Metrics& metrics, StunResponder::Parameters stun)
    : table_(table),
      metrics_(metrics),
      stun_(stun),
      answered_(metrics.counter("velmora_stun_requests_total", stunHelp, "result=\"answered\"")),
      malformed_(metrics.counter("velmora_stun_requests_total", stunHelp, "result=\"malformed\"")),
      limited_(metrics.counter("velmora_stun_requests_total", stunHelp, "result=\"limited\"")),
      unsent_(metrics.counter("velmora_relay_dropped_total", droppedHelp, "reason=\"unsent\"")) {}

UdpService::Worker::~Worker() {
    if (thread_.joinable()) {
        eventfd_write(stop_, 1);
        thread_.join();
    }
    if (stop_ >= 0) ::close(stop_);
    if (epoll_ >= 0) ::close(epoll_);
}

Status UdpService::Worker::start(Duty duty) {
    duty_ = duty;
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    stop_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const auto watch = [this](int descriptor, std::size_t tag) {
        epoll_event event{.events = EPOLLIN, .data = {.u64 = tag}};
        return epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) == 0;
    };
    bool watched = watch(stop_, ports_.size());
    for (std::size_t i = 0; i < ports_.size(); ++i) watched &= watch(ports_[i].socket->descriptor(), i);
    if (!watched) return Failure{fmt::format("UDP: {}", std::strerror(errno)), errno};
    thread_ = std::thread([this] { run(); });
    return Done{};
}

void UdpService::Worker::run() {
    auto nextTick = HostClock::now() + tick;
    std::array<epoll_event, 64> events;
    for (;;) {
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextTick - HostClock::now());
        const int count = epoll_wait(epoll_, events.data(), events.size(),
                                     static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == ports_.size()) return;
            serve(ports_[events[i].data.u64]);
        }
        if (HostClock::now() < nextTick) continue;
        nextTick = HostClock::now() + tick;
        for (Port& port : ports_) unsent_.add(port.socket->takeUnsent());
        if (duty_ == Duty::keepsTable) keepTable(HostClock::now());
    }
}

void UdpService::Worker::serve(Port& port) {
    for (int round = 0; round < roundsPerWake; ++round) {
        const auto arrivals = port.socket->receive();
        const auto now = HostClock::now();
        out_.clear();
        answers_.clear();
        for (const auto& arrival : arrivals) {
            if (port.relay) {
                table_.receive(*port.relay, arrival, now, out_);
            } else {
                answerStun(arrival, now);
            }
        }
        port.socket->send(out_);
        if (arrivals.size() < slots) return;
    }
}

void UdpService::Worker::answerStun(const RelayTable::Arrival& arrival, HostClock::time_point now) {
    const std::size_t size = arrival.segmentSize;
    for (std::size_t at = 0; at < arrival.bytes.size(); at += size) {
        const ByteView packet = arrival.bytes.subspan(at, std::min(size, arrival.bytes.size() - at));
        auto reaction = stun_.reactTo(packet, arrival.from, now);
        if (!reaction.answer) {
            (reaction.refusal == StunResponder::Refusal::limited ? limited_ : malformed_).add();
            continue;
        }
        answered_.add();
        const Bytes& answer = answers_.emplace_back(std::move(*reaction.answer));
        out_.push_back({arrival.from, arrival.local, answer, answer.size()});
    }
}

void UdpService::Worker::keepTable(HostClock::time_point now) {
    table_.expire(now);
    const auto counts = table_.counts();
    metrics_.gauge("velmora_relay_pairs", "Relay tokens and sessions now")
        .set(static_cast<std::int64_t>(counts.pairs));
    const auto tell = [&](std::uint64_t RelayTable::Counts::*field, const char* name, const char* help,
                          const char* labels = "") {
        metrics_.counter(name, help, labels).add(counts.*field - told_.*field);
    };
    using Counts = RelayTable::Counts;
    constexpr const char* registrations = "velmora_relay_registrations_total";
    constexpr const char* registrationsHelp = "Registrations at the relay, by result";
    tell(&Counts::issued, "velmora_relay_tokens_total", "Relay tokens given out");
    tell(&Counts::registered, registrations, registrationsHelp, "result=\"registered\"");
    tell(&Counts::forged, registrations, registrationsHelp, "result=\"forged\"");
    tell(&Counts::refused, registrations, registrationsHelp, "result=\"refused\"");
    tell(&Counts::datagrams, "velmora_relay_datagrams_total", "Datagrams passed on");
    tell(&Counts::bytes, "velmora_relay_bytes_total", "Bytes passed on");
    tell(&Counts::unknown, "velmora_relay_dropped_total", droppedHelp, "reason=\"unknown\"");
    tell(&Counts::limited, "velmora_relay_dropped_total", droppedHelp, "reason=\"rate\"");
    told_ = counts;
}

UdpService::UdpService() = default;
UdpService::~UdpService() = default;

Result<std::unique_ptr<UdpService>> UdpService::open(Options options, RelayTable& table, Metrics& metrics) {
    const auto ip = parsed(options.address);
    if (!ip) return Failure{fmt::format("“{}” is no IP address", options.address)};
    std::unique_ptr<UdpService> service(new UdpService);
    const auto& ports = table.ports();
    const std::size_t threads = std::clamp<std::size_t>(options.threads, 1, ports.size());
    for (std::size_t i = 0; i < threads; ++i)
        service->workers_.push_back(std::make_unique<Worker>(table, metrics, options.stun));

    auto stun = Socket::bindTo(*ip, options.stunPort);
    if (!stun) return stun.error();
    service->workers_[0]->addStun(std::move(*stun));
    for (std::size_t i = 0; i < ports.size(); ++i) {
        auto relay = Socket::bindTo(*ip, ports[i]);
        if (!relay) return relay.error();
        service->workers_[i % threads]->addRelay(std::move(*relay), i);
    }
    for (const auto& worker : service->workers_) {
        const bool first = worker == service->workers_[0];
        const Status started = worker->start(first ? Worker::Duty::keepsTable : Worker::Duty::portsAlone);
        if (!started) return started.error();
    }
    return service;
}

}  // namespace velmora
