#include "Benchmarks/Rendezvous/HostCrowd.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "VelmoraKit/Wire/RendezvousMessages.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Connection = SocketLoop::Connection;

constexpr std::uint32_t hostsOfAProcess = 8'000;
constexpr std::uint32_t openingAtATime = 100;  // far below what a listening socket lets wait

rendezvous::FromClient registrationOf(std::uint32_t host) {
    return rendezvous::HostCreate{.hostId = HostCrowd::idOf(host),
                                  .password = HostCrowd::password,
                                  .hostname = "Machine " + std::to_string(host)};
}

rendezvous::HostCandidates candidates() {
    return {.addresses = {"192.168.1.23:47272", "10.0.0.5:47272"},
            .quic = true,
            .fingerprint = std::string(64, 'a'),
            .mapped = "203.0.113.5:47272"};
}

}  // namespace

Crowd::Crowd(std::uint32_t size)
    : size_(size),
      shared_(new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
                  Shared) {}

Crowd::~Crowd() {
    for (const pid_t child : children_) kill(child, SIGKILL);
    for (const pid_t child : children_) waitpid(child, nullptr, 0);
    munmap(shared_, sizeof(Shared));
}

bool Crowd::forkOne() {
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        return true;
    }
    children_.push_back(child);
    return false;
}

bool Crowd::waitUntilReady(std::chrono::seconds limit) const {
    const auto deadline = HostClock::now() + limit;
    while (shared_->ready < size_) {
        if (HostClock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

HostCrowd::HostCrowd(ServicePort port, std::uint32_t count) : Crowd(count) {
    for (std::uint32_t first = 0; first < count; first += hostsOfAProcess) {
        if (forkOne()) work(port, first, std::min(count, first + hostsOfAProcess));
    }
}

void HostCrowd::work(ServicePort port, std::uint32_t first, std::uint32_t last) {
    SocketLoop loop;
    std::vector<std::unique_ptr<Connection>> hosts(last - first);
    std::uint32_t opening = 0;
    std::uint32_t next = first;
    const auto openOne = [&](std::uint32_t id) {
        auto& host = hosts[id - first];
        ++opening;
        host = std::make_unique<Connection>(loop, id, port, Connection::Purpose::webSocket);
        host->onOpen = [&host = *host, id] { host.sendText(encode(registrationOf(id))); };
        host->onText = [this, &opening, &host = *host](std::string_view text) {
            const auto message = rendezvous::decodeToClient(text);
            if (message && std::holds_alternative<rendezvous::SessionCreated>(*message)) {
                --opening;
                ++shared().ready;
            } else if (message && std::holds_alternative<rendezvous::JoinRequest>(*message)) {
                const auto& client = std::get<rendezvous::JoinRequest>(*message).clientId;
                host.sendText(encode(rendezvous::FromClient{rendezvous::Accept{client, candidates()}}));
            }
        };
        host->onClosed = [this] { ++shared().lost; };
    };
    for (;;) {
        while (next < last && opening < openingAtATime) openOne(next++);
        loop.runFor(next < last ? 1ms : 1s, [&] { return next < last && opening < openingAtATime; });
    }
}

HalfOpenCrowd::HalfOpenCrowd(ServicePort port, std::uint32_t count) : Crowd(count) {
    if (forkOne()) work(port, count);
}

void HalfOpenCrowd::work(ServicePort port, std::uint32_t count) {
    SocketLoop loop;
    std::vector<std::unique_ptr<Connection>> connections(count);
    std::deque<std::uint32_t> missing;
    for (std::uint32_t i = 0; i < count; ++i) missing.push_back(i);
    const auto openOne = [&](std::uint32_t index) {
        auto& connection = connections[index];
        if (connection) loop.retire(std::move(connection));
        connection =
            std::make_unique<Connection>(loop, 2'000'000 + index, port, Connection::Purpose::halfOpen);
        connection->onOpen = [this] { ++shared().ready; };
        connection->onClosed = [this, &missing, index] {
            ++shared().lost;
            missing.push_back(index);
        };
    };
    for (;;) {
        if (!missing.empty()) {
            openOne(missing.front());
            missing.pop_front();
        }
        loop.runFor(1ms);
    }
}

}  // namespace velmora
