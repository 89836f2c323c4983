#pragma once

#include <utility>

#include "Platform/PathMonitor.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A path of the kind that the test says.
class FakePathMonitor final : public PathMonitor {
public:
    explicit FakePathMonitor(Queue& main) : main_(main) {}

    PathKind kind;

    std::unique_ptr<Request> currentPath(std::function<void(PathKind)> onPath) override {
        auto pending = std::make_unique<Pending>();
        main_.post(pending->liveness.guard([onPath = std::move(onPath), told = kind] { onPath(told); }));
        return pending;
    }

private:
    struct Pending final : Request {
        Liveness liveness;
    };
    Queue& main_;
};

}  // namespace velmora
