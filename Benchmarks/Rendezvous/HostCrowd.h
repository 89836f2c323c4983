#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Benchmarks/Rendezvous/SocketLoop.h"

namespace velmora {

/// Client processes, since each has its own number of descriptors. They end with this object, or with us.
class Crowd {
public:
    virtual ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /// False if not all of them came to stand within the time.
    bool waitUntilReady(std::chrono::seconds limit) const;
    /// Registered, or opened, at some time.
    std::uint32_t ready() const { return shared_->ready; }
    /// Connections that the service refused or ended.
    std::uint32_t lost() const { return shared_->lost; }

protected:
    struct Shared {
        std::atomic<std::uint32_t> ready = 0;
        std::atomic<std::uint32_t> lost = 0;
    };
    explicit Crowd(std::uint32_t size);
    /// True in the child, which never returns from its work.
    bool forkOne();
    Shared& shared() { return *shared_; }

private:
    const std::uint32_t size_;
    Shared* const shared_;  // memory that the children share with us
    std::vector<pid_t> children_;
};

/// Registered hosts that accept whoever joins.
class HostCrowd final : public Crowd {
public:
    HostCrowd(ServicePort port, std::uint32_t count);

    static std::string idOf(std::uint32_t host) { return std::to_string(100'000'000 + host); }
    static constexpr const char* password = "314159";

private:
    [[noreturn]] void work(ServicePort port, std::uint32_t first, std::uint32_t last);
};

/// Connections that never get as far as a WebSocket. Those that the service ends are made again, a thousand a
/// second at most.
class HalfOpenCrowd final : public Crowd {
public:
    HalfOpenCrowd(ServicePort port, std::uint32_t count);

private:
    [[noreturn]] void work(ServicePort port, std::uint32_t count);
};

}  // namespace velmora
