// What video datagrams cost: a host process sends 60 frames a second over QUIC on the loopback to a viewer
// process, at several rates. CPU is process time of each side as a share of one core; a frame's delay runs
// from its hand-over to the flow until its last datagram is told on the viewer's queue.
//
//   DatagramBenchmark [seconds per rate, default 5]

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <vector>

#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Network/UdpSocket.h"
#include "Tests/TestIdentity.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

constexpr int framesPerSecond = 60;
constexpr auto warmUp = 1s;  // the path's size and rate are found; not measured

struct Header {
    std::uint64_t handedOver = 0;  // microseconds of the clock that both processes share
    std::uint32_t frame = 0;
    std::uint16_t part = 0, parts = 0;
};

/// What a process tells about itself through its pipe.
struct Report {
    double cpuShare = 0;
    double datagrams = 0;              // sent, or received
    double complete = 0;               // frames
    double p50 = 0, p95 = 0, p99 = 0;  // milliseconds
};

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// CPU between construction and `share`.
class CpuMeter {
public:
    double share() const {
        const std::chrono::duration<double> wall = HostClock::now() - since_;
        return (cpuSeconds() - cpu_) / wall.count();
    }

private:
    const HostClock::time_point since_ = HostClock::now();
    const double cpu_ = cpuSeconds();
};

/// The host: waits for a viewer's flow, then sends.
class Sender {
public:
    Sender(std::uint16_t port, double bitsPerSecond, std::chrono::seconds time)
        : bytesPerFrame_(static_cast<std::size_t>(bitsPerSecond / 8 / framesPerSecond)), time_(time) {
        queue_.runSync([&] {
            listener_ = stack_->listenOn(port, {.identity = testIdentity().identity});
            listener_->onGroup = [this](std::shared_ptr<ConnectionGroup> group) {
                group_ = std::move(group);
                group_->onStream = [this](std::shared_ptr<Stream> stream) {
                    stream_ = std::move(stream);
                    stream_->start(queue_);
                };
                group_->onDatagramFlow = [this](std::shared_ptr<DatagramFlow> flow) {
                    flow_ = std::move(flow);
                    flow_->start(queue_);
                    begin_ = queue_.now();
                    sendFrame();
                };
                group_->start(queue_);
            };
            listener_->start(queue_);
        });
    }
    ~Sender() {
        queue_.runSync([this] {
            timer_.reset();
            flow_.reset();
            stream_.reset();
            group_.reset();
            listener_.reset();
        });
    }
    Report wait() { return done_.get_future().get(); }

private:
    void sendFrame() {
        const auto now = queue_.now();
        if (!meter_ && now - begin_ >= warmUp) {
            meter_.emplace();
            sentBefore_ = flow_->statistics().datagramsSent;
        }
        if (now - begin_ >= warmUp + time_) {
            const auto sent = flow_->statistics().datagramsSent - sentBefore_;
            done_.set_value({.cpuShare = meter_->share(), .datagrams = static_cast<double>(sent)});
            return;
        }
        const std::size_t most = flow_->usableDatagramFrameSize().value_or(QUICSetup::defaultDatagramPayload);
        const std::size_t parts = (bytesPerFrame_ + most - 1) / most;
        std::vector<SharedBytes> frame;
        for (std::size_t part = 0; part < parts; ++part) {
            Bytes datagram(std::min(most, bytesPerFrame_ - part * most), 0x5a);
            datagram.resize(std::max(datagram.size(), sizeof(Header)));
            const Header header{HostClock::micros(now), frame_, static_cast<std::uint16_t>(part),
                                static_cast<std::uint16_t>(parts)};
            std::memcpy(datagram.data(), &header, sizeof header);
            frame.push_back(std::make_shared<const Bytes>(std::move(datagram)));
        }
        flow_->send(std::move(frame), ++frame_);
        const auto next = begin_ + std::chrono::microseconds(1'000'000LL * frame_ / framesPerSecond);
        timer_ = queue_.after(std::max(HostClock::duration(0), next - queue_.now()), [this] { sendFrame(); });
    }

    const std::size_t bytesPerFrame_;
    const std::chrono::seconds time_;
    std::unique_ptr<NetworkStack> stack_ = makeQuicTransportStack();
    ThreadQueue queue_{"velmora.quic"};
    std::unique_ptr<Listener> listener_;
    std::shared_ptr<ConnectionGroup> group_;
    std::shared_ptr<Stream> stream_;
    std::shared_ptr<DatagramFlow> flow_;
    TimerToken timer_;
    HostClock::time_point begin_;
    std::uint32_t frame_ = 0;
    std::uint64_t sentBefore_ = 0;
    std::optional<CpuMeter> meter_;
    std::promise<Report> done_;
};

/// The viewer: connects, counts, and reports when the host has closed.
class Receiver {
public:
    explicit Receiver(std::uint16_t port) {
        queue_.runSync([&] {
            group_ = stack_->connectTo(Endpoint::hostPort("127.0.0.1", port),
                                       {.verification = QUICSetup::Pinned{testIdentity().fingerprint}});
            group_->onState = [this](TransportState state, const auto&) {
                if (state == TransportState::ready) openFlow();
                if (state == TransportState::failed || state == TransportState::cancelled) finish();
            };
            group_->start(queue_);
        });
    }
    ~Receiver() {
        queue_.runSync([this] {
            flow_.reset();
            group_.reset();
        });
    }
    Report wait() { return done_.get_future().get(); }

private:
    void openFlow() {
        flow_ = group_->openDatagramFlow();
        flow_->onDatagram = [this](Bytes datagram) { take(datagram); };
        flow_->start(queue_);
        flow_->send({std::make_shared<const Bytes>(1)}, 0);
        begin_ = queue_.now();
    }
    void take(const Bytes& datagram) {
        Header header;
        std::memcpy(&header, datagram.data(), sizeof header);
        const auto now = queue_.now();
        if (!meter_ && now - begin_ >= warmUp) meter_.emplace();
        if (!meter_) return;
        ++datagrams_;
        if (header.frame != current_) {
            current_ = header.frame;
            got_ = 0;
        }
        if (++got_ < header.parts) return;
        cpu_ = meter_->share();
        delays_.push_back(static_cast<double>(HostClock::micros(now) - header.handedOver) / 1000);
    }
    void finish() {
        std::sort(delays_.begin(), delays_.end());
        const auto at = [this](double share) {
            if (delays_.empty()) return 0.0;
            return delays_[std::min(delays_.size() - 1,
                                    static_cast<std::size_t>(share * double(delays_.size())))];
        };
        done_.set_value({.cpuShare = cpu_,
                         .datagrams = static_cast<double>(datagrams_),
                         .complete = static_cast<double>(delays_.size()),
                         .p50 = at(0.5),
                         .p95 = at(0.95),
                         .p99 = at(0.99)});
    }

    std::unique_ptr<NetworkStack> stack_ = makeQuicTransportStack();
    ThreadQueue queue_{"velmora.quic.client"};
    std::shared_ptr<ConnectionGroup> group_;
    std::shared_ptr<DatagramFlow> flow_;
    HostClock::time_point begin_;
    std::optional<CpuMeter> meter_;
    double cpu_ = 0;
    std::uint32_t current_ = 0, got_ = 0;
    std::uint64_t datagrams_ = 0;
    std::vector<double> delays_;
    std::promise<Report> done_;
};

/// Runs `measure` in a process of its own.
template <class F>
std::pair<pid_t, int> fork(F measure) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) std::abort();
    const pid_t child = ::fork();
    if (child != 0) {
        close(ends[1]);
        return {child, ends[0]};
    }
    const Report report = measure();
    [[maybe_unused]] const auto written = write(ends[1], &report, sizeof report);
    _exit(0);
}

Report collect(std::pair<pid_t, int> process) {
    Report report;
    [[maybe_unused]] const auto got = read(process.second, &report, sizeof report);
    close(process.second);
    waitpid(process.first, nullptr, 0);
    return report;
}

void measure(double megabits, std::chrono::seconds time) {
    const std::uint16_t port = UdpSocket::bindTo(0).value()->port();
    const auto host = fork([&] { return Sender(port, megabits * 1e6, time).wait(); });
    const auto viewer =
        fork([&] { return Receiver(port).wait(); });  // its first packet is repeated if need be
    const Report sent = collect(host);
    const Report received = collect(viewer);
    fmt::print("{:>8.0f} {:>8.1f} {:>8.1f} {:>10.0f} {:>10.0f} {:>10.0f} {:>8.2f} {:>8.2f} {:>8.2f}\n",
               megabits, sent.cpuShare * 100, received.cpuShare * 100, sent.datagrams, received.datagrams,
               received.complete, received.p50, received.p95, received.p99);
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    const auto time = std::chrono::seconds(argc > 1 ? std::max(1, std::atoi(argv[1])) : 5);
    (void)velmora::testIdentity();  // made once, before the processes part
    fmt::print(
        "Datagrams over QUIC on the loopback, 60 frames a second, {} s each; goal at 80 Mbit/s: 6 % of a "
        "core\n",
        time.count());
    fmt::print("{:>8} {:>8} {:>8} {:>10} {:>10} {:>10} {:>8} {:>8} {:>8}\n", "Mbit/s", "host %", "viewer %",
               "sent", "received", "frames", "p50 ms", "p95 ms", "p99 ms");
    std::fflush(stdout);
    for (const double megabits : {5.0, 20.0, 80.0, 300.0}) {
        velmora::measure(megabits, time);
        std::fflush(stdout);
    }
}
