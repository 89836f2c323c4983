#pragma once

#include <memory>

#include "Platform/PathMonitor.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {

/// The kind of path as NetworkManager sees it, where it runs; elsewhere nothing is known of the path.
class NetworkManagerPathMonitor final : public PathMonitor {
public:
    /// `main` outlives us; requests do not.
    explicit NetworkManagerPathMonitor(Queue& main);
    ~NetworkManagerPathMonitor() override;

    std::unique_ptr<Request> currentPath(std::function<void(PathKind)> onPath) override;

private:
    class Pending;
    Queue& main_;
    ThreadQueue worker_{"velmora.path"};
};

}  // namespace velmora
