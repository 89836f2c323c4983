#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// One datagram of video: 0 frame u32 | 4 index u16 | 6 count u16 | 8 a slice of the encoded VideoFrame
/// record to the end. Frames count up from 1 in a session; all packets of a frame carry the same `count`, and
/// all slices but the last are equally long.
struct VideoPackets {
    static constexpr std::size_t headerSize = 8;
    static constexpr std::size_t smallestPayload = 200;
    static constexpr std::size_t mostPackets = 0xFFFF;

    struct Header {
        std::uint32_t frame = 0;
        std::uint16_t index = 0;
        std::uint16_t count = 0;
    };

    /// Cuts one encoded record into datagrams whose slices are `payloadSize` bytes (at least 200). An empty
    /// record gives one datagram. The datagrams are immutable and shared: the repair history and the flow
    /// hold the same bytes. There are never more than 65535: slices of a record too large for that are
    /// longer.
    static std::vector<SharedBytes> split(ByteView record, std::uint32_t frame, std::size_t payloadSize);

    /// Nothing if the datagram is shorter than a header. Index and count are as the peer gave them.
    static std::optional<Header> headerOf(ByteView datagram);
};

}  // namespace velmora
