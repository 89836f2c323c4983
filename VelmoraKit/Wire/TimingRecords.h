#pragma once

#include <cstdint>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// Viewer to host: 0 viewerMicros u64, the viewer's HostClock.
struct Ping {
    std::uint64_t viewerMicros = 0;

    Bytes encode() const;
    static Result<Ping, WireError> decode(ByteView data);
    bool operator==(const Ping&) const = default;
};

/// Host to viewer: 0 viewerMicros u64 | 8 serverMicros u64 | 16 serverCPUPermille u32 | 20 droppedFrames u32.
struct Pong {
    std::uint64_t viewerMicros = 0;       // of the Ping, unchanged
    std::uint64_t serverMicros = 0;       // the host's HostClock at the reply
    std::uint32_t serverCPUPermille = 0;  // of one core, by the host's process
    std::uint32_t droppedFrames = 0;      // since the previous Pong

    Bytes encode() const;
    static Result<Pong, WireError> decode(ByteView data);
    bool operator==(const Pong&) const = default;
};

}  // namespace velmora
