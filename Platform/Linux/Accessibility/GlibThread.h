#pragma once

#include <glib.h>

#include <thread>

#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// A thread with a GLib main context of its own: GLib's default context belongs to the main thread. What is
/// asynchronous in GIO and begun on the thread completes there.
class GlibThread {
public:
    /// `name` is for debuggers, 15 bytes at most, and outlives the thread.
    explicit GlibThread(const char* name);
    /// Runs what was posted before, then ends.
    ~GlibThread();
    GlibThread(const GlibThread&) = delete;
    GlibThread& operator=(const GlibThread&) = delete;

    /// Runs `block` on the thread, in the order of posting. Any thread.
    void post(UniqueFunction<void()> block);

private:
    GMainContext* const context_;
    GMainLoop* const loop_;
    std::thread thread_;
};

}  // namespace velmora
