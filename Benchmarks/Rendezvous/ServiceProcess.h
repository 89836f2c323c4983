#pragma once

#include <sys/types.h>

#include <cstdint>

#include "Benchmarks/ProcessUse.h"
#include "Testing/ScratchFolder.h"

namespace velmora {

/// The built velmora-rendezvous, with one thread, on ports of its own of the loopback.
class ServiceProcess {
public:
    ServiceProcess();  // ends the benchmark in words if the service does not listen within ten seconds
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    std::uint16_t port() const { return port_; }
    ProcessUse use() const { return useOf(child_); }

private:
    ScratchFolder folder_;
    std::uint16_t port_ = 0;
    pid_t child_ = -1;
};

}  // namespace velmora
