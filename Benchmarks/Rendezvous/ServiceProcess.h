#pragma once

#include <sys/types.h>

#include <cstdint>

#include "Benchmarks/ProcessUse.h"
#include "Benchmarks/Rendezvous/SocketLoop.h"
#include "Testing/ScratchFolder.h"

namespace velmora {

/// The built velmora-rendezvous, with one thread, on ports of its own of the loopback; with TLS it has an
/// ECDSA certificate (P-256), as most servers do.
class ServiceProcess {
public:
    enum class Security { plain, tls };
    explicit ServiceProcess(
        Security security = Security::plain);  // ends the benchmark in words if the service does not listen
                                               // within ten seconds
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    ServicePort port() const { return {port_, security_ == Security::tls}; }
    ProcessUse use() const { return useOf(child_); }

private:
    ScratchFolder folder_;
    const Security security_;
    std::uint16_t port_ = 0;
    pid_t child_ = -1;
};

}  // namespace velmora
