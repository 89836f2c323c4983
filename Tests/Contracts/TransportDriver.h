#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"

namespace velmora {

/// What the suite of ConnectionGroup needs of an implementation: a stack, a certificate, ports, and a way to
/// wait. All callbacks run on `queue`, which is the test's own thread.
class TransportDriver {
public:
    virtual ~TransportDriver() = default;

    virtual TransportStack& stack() = 0;
    virtual Queue& queue() = 0;
    /// False if `condition` does not come to hold within a time that is ample for what the suite does.
    virtual bool waitUntil(const std::function<bool()>& condition) = 0;

    virtual TransportIdentity identity() = 0;
    virtual std::string fingerprint() = 0;  // of `identity`
    virtual std::uint16_t freePort() = 0;
};

using TransportDriverMaker = std::unique_ptr<TransportDriver> (*)();

}  // namespace velmora
