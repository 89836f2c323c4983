#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Rendezvous/Metrics.h"
#include "Rendezvous/RelayTable.h"
#include "Rendezvous/StunResponder.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// The service's UDP ports: answers STUN on one, relays on those of a RelayTable. Decides nothing itself.
/// Each thread has ports of its own and waits for them alone; what cannot be sent at once is dropped. Runs of
/// equal packets are received and sent in one call where kernel and interface can.
class UdpService {
public:
    struct Options {
        std::string address;  // of ours, numeric; empty: each, of IPv6 and IPv4
        std::uint16_t stunPort = 3478;
        unsigned threads = 1;  // no more than there are relay ports
        StunResponder::Parameters stun;
    };
    /// Binds every port and begins. `table` and `metrics` outlive us. The failure names the port that could
    /// not be had; its code is the errno.
    static Result<std::unique_ptr<UdpService>> open(Options options, RelayTable& table, Metrics& metrics);
    ~UdpService();  // waits for the threads, which takes at most a moment

private:
    class Socket;
    class Worker;
    UdpService();

    std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace velmora
