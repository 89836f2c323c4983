#include "VelmoraKit/Media/VideoPackets.h"

#include <algorithm>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

std::vector<SharedBytes> VideoPackets::split(ByteView record, std::uint32_t frame, std::size_t payloadSize) {
    // So large a record in so small packets that the numbers do not suffice: it will not leave, but do no
    // harm.
    const std::size_t enough = (record.size() + mostPackets - 1) / mostPackets;
    const std::size_t size = std::max({payloadSize, smallestPayload, enough});
    const std::size_t count = std::max<std::size_t>(1, (record.size() + size - 1) / size);

    std::vector<SharedBytes> packets;
    packets.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        const ByteView slice = record.subspan(index * size, std::min(size, record.size() - index * size));
        ByteWriter writer(headerSize + slice.size());
        writer.u32(frame);
        writer.u32(static_cast<std::uint32_t>(index << 16 | count));
        writer.bytes(slice);
        packets.push_back(std::make_shared<const Bytes>(std::move(writer.data)));
    }
    return packets;
}

std::optional<VideoPackets::Header> VideoPackets::headerOf(ByteView datagram) {
    ByteReader reader(datagram);
    const auto frame = reader.u32();
    const auto place = reader.u32();
    if (!frame || !place) return std::nullopt;
    return Header{.frame = *frame,
                  .index = static_cast<std::uint16_t>(*place >> 16),
                  .count = static_cast<std::uint16_t>(*place)};
}

}  // namespace velmora
