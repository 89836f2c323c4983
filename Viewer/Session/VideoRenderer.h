#pragma once

#include "Viewer/Session/VideoDecoding.h"

namespace velmora {

/// Where decoded pictures go: a window, or nothing. Called on the client's queue and outlives the connection
/// that it was given to; whatever it shows them with lives elsewhere, so it takes a picture over and returns.
class VideoRenderer {
public:
    virtual ~VideoRenderer() = default;

    /// True when it can show nothing more until it has been flushed and a keyframe has come.
    virtual bool hasFailed() const = 0;
    virtual bool requiresFlush() const = 0;
    virtual void flush() = 0;

    /// Shows the picture at once: the newest one wins.
    virtual void enqueue(const DisplaySample& sample) = 0;
};

}  // namespace velmora
