#pragma once

#include <cstdint>
#include <memory>

#include "Testing/SimulatedLink.h"

namespace velmora {

/// A viewer and a host that are connected over a simulated link, each with the control stream and the flow,
/// started: where a test begins that is not about connecting. The bytes that opened both have been read, and
/// nothing was lost so far, whatever the link's conditions are.
struct ConnectedPair {
    /// Passes the time that connecting takes. The queues outlive the pair.
    ConnectedPair(VirtualTime& time, SimulatedLink& link, Queue& hostQueue, Queue& viewerQueue,
                  std::uint16_t port = 47272);

    std::unique_ptr<Listener> listener;
    std::shared_ptr<ConnectionGroup> hostGroup, viewerGroup;
    std::shared_ptr<Stream> hostStream, viewerStream;
    std::shared_ptr<DatagramFlow> hostFlow, viewerFlow;
};

}  // namespace velmora
