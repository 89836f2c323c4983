#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "Rendezvous/ClientPort.h"

namespace velmora {

/// How many sockets there may be: in all, of one source, and of those that have not yet shown what they are
/// for. When it gets full the half-open ones go first, the oldest before the others: an honest client is
/// through within milliseconds, so a crowd that only opens sockets pushes out itself.
///
/// Any thread.
class SocketBudget {
public:
    struct Parameters {
        std::size_t most = 19'000;
        std::size_t mostHalfOpen = 2'000;
        std::size_t mostOfSource = 256;  // a company behind one address
    };
    struct Admission {
        bool admitted = false;
        std::optional<SocketId> victim;  // the caller drops it, and then closes it here
    };

    explicit SocketBudget(Parameters parameters) : parameters_(parameters) {}

    /// A new socket, half-open. An empty source is not limited: a proxy's own address.
    Admission open(SocketId socket, const std::string& source);
    /// The proxy has told who is behind it; false if that one has too many.
    bool attribute(SocketId socket, const std::string& source);
    void settle(SocketId socket);
    void close(SocketId socket);

    std::size_t open() const;
    std::size_t halfOpen() const;

private:
    struct Entry {
        std::string source;
        std::optional<std::list<SocketId>::iterator> place;  // among the half-open
    };
    bool count(Entry& entry, const std::string& source);
    void leaveHalfOpen(Entry& entry);

    const Parameters parameters_;
    mutable std::mutex lock_;  // guards what follows
    std::unordered_map<SocketId, Entry> sockets_;
    std::list<SocketId> halfOpen_;  // the oldest first
    std::unordered_map<std::string, std::size_t> bySource_;
};

}  // namespace velmora
