#include "Benchmarks/Rendezvous/SocketLoop.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velmora {
namespace {

constexpr std::string_view upgradeRequest =
    "GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
constexpr std::uint8_t textFrame = 0x81, closeFrame = 0x88, pingFrame = 0x89, pongFrame = 0x8A;

std::string frameOf(std::uint8_t kind, std::string_view payload) {
    std::string frame(1, static_cast<char>(kind));
    if (payload.size() < 126) {
        frame += static_cast<char>(0x80 | payload.size());
    } else {
        frame += static_cast<char>(0x80 | 126);
        frame += static_cast<char>(payload.size() >> 8);
        frame += static_cast<char>(payload.size() & 255);
    }
    frame.append(4, '\0');  // a mask that changes nothing
    frame += payload;
    return frame;
}

}  // namespace

in_addr loopbackAddress(std::uint32_t index) {
    return {htonl(0x7F010001 + index % 0x00F00000)};
}

SocketLoop::SocketLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), tls_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
    SSL_CTX_set_mode(tls_.get(), SSL_MODE_RELEASE_BUFFERS);
}

SocketLoop::~SocketLoop() {
    retired_.clear();
    ::close(epoll_);
}

void SocketLoop::runFor(std::chrono::microseconds limit, const std::function<bool()>& done) {
    const auto deadline = HostClock::now() + limit;
    std::array<epoll_event, 256> events;
    for (;;) {
        // To the microsecond: milliseconds, rounded down, would spin and take the service's core.
        const auto rest = std::max<std::int64_t>((deadline - HostClock::now()).count(), 0);
        const timespec wait{.tv_sec = rest / 1'000'000, .tv_nsec = rest % 1'000'000 * 1'000};
        const int count = epoll_pwait2(epoll_, events.data(), events.size(), &wait, nullptr);
        for (int i = 0; i < count; ++i) {
            const auto found = connections_.find(events[i].data.fd);
            if (found != connections_.end()) found->second->handle(events[i].events);
        }
        retired_.clear();
        if ((done && done()) || HostClock::now() >= deadline) return;
    }
}

SocketLoop::Connection::Connection(SocketLoop& loop, std::uint32_t address, ServicePort port, Purpose purpose)
    : loop_(loop),
      purpose_(purpose),
      descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    setsockopt(descriptor_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &yes, sizeof yes);
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in own{.sin_family = AF_INET, .sin_addr = loopbackAddress(address)};
    const sockaddr_in to{
        .sin_family = AF_INET, .sin_port = htons(port.number), .sin_addr = {htonl(INADDR_LOOPBACK)}};
    if (descriptor_ < 0 || bind(descriptor_, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0 ||
        (connect(descriptor_, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 &&
         errno != EINPROGRESS)) {
        std::perror("a client's socket");
        std::exit(1);
    }
    if (port.tls) {
        tls_.reset(SSL_new(loop_.tls_.get()));
        SSL_set_fd(tls_.get(), descriptor_);
        SSL_set_connect_state(tls_.get());
    }
    epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLET, .data = {.fd = descriptor_}};
    epoll_ctl(loop_.epoll_, EPOLL_CTL_ADD, descriptor_, &event);
    loop_.connections_[descriptor_] = this;
}

SocketLoop::Connection::~Connection() {
    if (descriptor_ < 0) return;
    loop_.connections_.erase(descriptor_);
    ::close(descriptor_);
}

void SocketLoop::Connection::sendText(std::string_view text) {
    sendRaw(frameOf(textFrame, text));
}

/// Messages are far smaller than a socket's buffer, so a client that cannot send is one that is not read.
void SocketLoop::Connection::sendRaw(std::string_view bytes) {
    const auto size = static_cast<int>(bytes.size());
    if (tls_) {
        if (SSL_write(tls_.get(), bytes.data(), size) != size) fail();
        return;
    }
    if (send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        fail();
}

void SocketLoop::Connection::handle(std::uint32_t events) {
    if (state_ == State::closed) return;
    if (events & (EPOLLERR | EPOLLHUP)) return fail();
    if (state_ == State::connecting && (events & EPOLLOUT) && tls_) state_ = State::shakingHands;
    if (state_ == State::shakingHands) return shakeHands();
    if (state_ == State::connecting && (events & EPOLLOUT)) {
        state_ = State::upgrading;
        if (purpose_ == Purpose::webSocket) return sendRaw(upgradeRequest);
        // One in two says nothing at all, the other never ends its headers.
        if (descriptor_ % 2 == 0) sendRaw(upgradeRequest.substr(0, 60));
        if (onOpen) onOpen();
    }
    if (events & EPOLLIN) read();
}

void SocketLoop::Connection::shakeHands() {
    const int status = SSL_do_handshake(tls_.get());
    if (status != 1) {
        const int error = SSL_get_error(tls_.get(), status);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) fail();
        return;
    }
    state_ = State::upgrading;
    sendRaw(upgradeRequest);
}

/// As `recv` does.
ssize_t SocketLoop::Connection::receive(char* into, std::size_t size) {
    if (!tls_) return recv(descriptor_, into, size, 0);
    const int count = SSL_read(tls_.get(), into, static_cast<int>(size));
    if (count > 0) return count;
    const bool isEmpty = SSL_get_error(tls_.get(), count) == SSL_ERROR_WANT_READ;
    errno = isEmpty ? EAGAIN : ECONNRESET;
    return -1;
}

void SocketLoop::Connection::read() {
    std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t size = receive(buffer.data(), buffer.size());
        if (size < 0 && errno == EAGAIN) break;
        if (size <= 0) return fail();
        arrived_.append(buffer.data(), static_cast<std::size_t>(size));
    }
    if (state_ == State::upgrading) {
        const auto end = arrived_.find("\r\n\r\n");
        if (end == std::string::npos) return;
        if (!arrived_.starts_with("HTTP/1.1 101")) return fail();
        arrived_.erase(0, end + 4);
        state_ = State::open;
        if (onOpen) onOpen();
    }
    while (state_ == State::open && readFrame()) {
    }
}

bool SocketLoop::Connection::readFrame() {
    if (arrived_.size() < 2) return false;
    const auto kind = static_cast<std::uint8_t>(arrived_[0]);
    std::size_t size = static_cast<std::uint8_t>(arrived_[1]);
    std::size_t start = 2;
    if (size == 126) {
        if (arrived_.size() < 4) return false;
        size = static_cast<std::size_t>(static_cast<std::uint8_t>(arrived_[2])) << 8 |
               static_cast<std::uint8_t>(arrived_[3]);
        start = 4;
    }
    if (arrived_.size() < start + size) return false;
    const std::string payload = arrived_.substr(start, size);
    arrived_.erase(0, start + size);
    if (kind == closeFrame) {
        fail();
    } else if (kind == pingFrame) {
        sendRaw(frameOf(pongFrame, payload));
    } else if (kind == textFrame && onText) {
        onText(payload);
    }
    return true;
}

void SocketLoop::Connection::fail() {
    if (state_ == State::closed) return;
    state_ = State::closed;
    loop_.connections_.erase(descriptor_);
    ::close(descriptor_);
    descriptor_ = -1;
    if (onClosed) onClosed();
}

}  // namespace velmora
