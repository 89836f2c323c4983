#pragma once

#include <memory>

#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {

/// What velmora-look runs on. Made on the process's first thread, which then waits.
class LookServices {
public:
    virtual ~LookServices() = default;  // lets a goodbye leave first
    virtual Queue& main() = 0;
    virtual Queue& client() = 0;
    virtual ViewerConnection::Services viewer() = 0;
};

std::unique_ptr<LookServices> composeLook();

}  // namespace velmora
