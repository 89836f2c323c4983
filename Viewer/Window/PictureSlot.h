#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/VideoRenderer.h"
#include "Viewer/Session/VsyncTracker.h"

namespace velmora {

/// Room for one decoded picture on its way to a window: the newest. Filled on the client's queue, emptied on
/// the main queue. Held by shared pointers, one of them on the client's queue until its connection has gone.
class PictureSlot final : public VideoRenderer, public std::enable_shared_from_this<PictureSlot> {
public:
    explicit PictureSlot(Queue& main) : main_(main) {}

    /// On the main queue, with the newest picture. Set before the connection starts, taken away with null.
    std::function<void(SharedPicture)> onPicture;
    VsyncTracker vsync;

    bool hasFailed() const override { return false; }
    bool requiresFlush() const override { return false; }
    void flush() override {}
    void enqueue(const DisplaySample& sample) override;

private:
    void deliver();

    Queue& main_;
    std::mutex lock_;
    SharedPicture newest_;  // guarded by lock_; none unless a delivery is on its way
};

}  // namespace velmora
