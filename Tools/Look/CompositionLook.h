#pragma once

#include <memory>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Signaling/SignalingUrl.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {

/// What velmora-look runs on. Lives on the process's first thread, which is the main queue's while it runs.
class LookServices {
public:
    virtual ~LookServices() = default;  // lets a goodbye leave first
    virtual Queue& main() = 0;
    virtual Queue& client() = 0;
    virtual ViewerConnection::Services viewer() = 0;

    /// Runs the main queue until `stop`, which is called on it.
    virtual void run() = 0;
    virtual void stop() = 0;
};

/// Host IDs are looked up at `rendezvous`.
std::unique_ptr<LookServices> composeLook(const SignalingUrl& rendezvous);

}  // namespace velmora
