#include "Testing/UdpLinkEmulator.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;
using Packet = LinkPipe::Packet;

[[noreturn]] void raise(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Socket {
public:
    Socket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        if (fd_ < 0) raise("socket");
        const int size = 8 << 20;  // bursts of whole frames must not be lost here
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) raise("bind");
    }
    ~Socket() { close(fd_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const { return fd_; }
    std::uint16_t port() const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &size);
        return ntohs(own.sin_port);
    }

private:
    const int fd_;
};

}  // namespace

class UdpLinkEmulator::Relay {
public:
    Relay(std::uint16_t hostPort, const Link& link, std::uint64_t seed)
        : toHost_(link.toHost, seed), toViewer_(link.toViewer, seed + 1), back_(std::make_unique<Socket>()) {
        host_.sin_family = AF_INET;
        host_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        host_.sin_port = htons(hostPort);
        if (wake_ < 0) raise("eventfd");
        thread_ = std::thread([this] { run(); });
    }
    ~Relay() {
        ending_ = true;
        eventfd_write(wake_, 1);
        thread_.join();
        close(wake_);
    }

    std::uint16_t port() const { return front_.port(); }

    template <class F>
    void change(F f) {
        {
            std::lock_guard lock(mutex_);
            f(*this);
        }
        eventfd_write(wake_, 1);
    }

    void setLink(const Link& link) {
        toHost_.setDirection(link.toHost);
        toViewer_.setDirection(link.toViewer);
    }
    void setDead(bool dead) {
        dead_ = dead;
        toHost_.clear();
        toViewer_.clear();
    }
    void changePort() { back_ = std::make_unique<Socket>(); }

private:
    void run() {
        while (!ending_) {
            std::array<pollfd, 3> fds{};
            timespec wait{};
            {
                std::lock_guard lock(mutex_);
                fds = {pollfd{front_.fd(), POLLIN, 0}, pollfd{back_->fd(), POLLIN, 0},
                       pollfd{wake_, POLLIN, 0}};
                wait = timeToNextArrival();
            }
            ppoll(fds.data(), fds.size(), &wait, nullptr);
            if (fds[2].revents) {
                eventfd_t ignored;
                eventfd_read(wake_, &ignored);
            }
            std::lock_guard lock(mutex_);
            receive(front_.fd(), toHost_, &viewer_);
            receive(back_->fd(), toViewer_, nullptr);
            const auto now = Clock::now();
            while (const auto packet = toHost_.arrived(now)) send(back_->fd(), *packet, host_);
            while (const auto packet = toViewer_.arrived(now)) send(front_.fd(), *packet, viewer_);
        }
    }
    timespec timeToNextArrival() const {
        auto next = Clock::now() + std::chrono::seconds(1);
        for (const LinkPipe* pipe : {&toHost_, &toViewer_})
            next = std::min(next, pipe->nextArrival().value_or(next));
        const auto span = std::max(next - Clock::now(), Clock::duration::zero());
        const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(span).count();
        return {.tv_sec = nanos / 1'000'000'000, .tv_nsec = nanos % 1'000'000'000};
    }
    void receive(int fd, LinkPipe& pipe, sockaddr_in* source) {
        std::array<std::uint8_t, 65536> buffer;
        for (;;) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const auto length =
                recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (length < 0) return;
            if (dead_) continue;
            if (source) *source = from;
            pipe.enter(Packet(buffer.data(), buffer.data() + length), Clock::now());
        }
    }
    static void send(int fd, const Packet& packet, const sockaddr_in& to) {
        if (to.sin_port == 0) return;
        sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }

    std::mutex mutex_;  // guards the pipes, the addresses, the back socket and dead_
    LinkPipe toHost_, toViewer_;
    Socket front_;
    std::unique_ptr<Socket> back_;
    sockaddr_in host_{}, viewer_{};
    bool dead_ = false;
    std::atomic<bool> ending_ = false;
    const int wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::thread thread_;
};

UdpLinkEmulator::UdpLinkEmulator(std::uint16_t hostPort, const Link& link, std::uint64_t seed)
    : relay_(std::make_unique<Relay>(hostPort, link, seed)) {}
UdpLinkEmulator::~UdpLinkEmulator() = default;

std::uint16_t UdpLinkEmulator::port() const {
    return relay_->port();
}
void UdpLinkEmulator::setLink(const Link& link) {
    relay_->change([&](Relay& relay) { relay.setLink(link); });
}
void UdpLinkEmulator::setDead(bool dead) {
    relay_->change([&](Relay& relay) { relay.setDead(dead); });
}
void UdpLinkEmulator::changePort() {
    relay_->change([](Relay& relay) { relay.changePort(); });
}

}  // namespace velmora
