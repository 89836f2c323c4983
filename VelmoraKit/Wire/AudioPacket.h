#pragma once

#include <cstdint>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// Host to viewer, 20 ms of sound: 0 captureMicros u64 | 8 opus to the end, at least one byte.
struct AudioPacket {
    static constexpr double sampleRate = 48000.0;  // Hz
    static constexpr int channels = 2;
    static constexpr int framesPerPacket = 960;

    std::uint64_t captureMicros = 0;  // the host's HostClock
    Bytes opus;                       // one Opus packet

    Bytes encode() const;
    static Result<AudioPacket, WireError> decode(ByteView data);
    bool operator==(const AudioPacket&) const = default;
};

}  // namespace velmora
