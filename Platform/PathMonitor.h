#pragma once

#include <functional>
#include <memory>

namespace velmora {

/// What using the network costs. Neither, when the system does not tell.
struct PathKind {
    bool constrained = false;  // the user asked programs to save data
    bool expensive = false;    // a cellular link or a phone's hotspot, as far as the system can guess
    bool operator==(const PathKind&) const = default;
};

/// Lives on the main queue.
class PathMonitor {
public:
    class Request {
    public:
        virtual ~Request() = default;
    };
    virtual ~PathMonitor() = default;

    /// Tells the kind of the present path, once, on the main queue and never from inside the call, unless
    /// the request is destroyed first.
    [[nodiscard]] virtual std::unique_ptr<Request> currentPath(std::function<void(PathKind)> onPath) = 0;
};

}  // namespace velmora
