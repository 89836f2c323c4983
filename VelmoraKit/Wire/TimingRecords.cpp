#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {

Bytes Ping::encode() const {
    ByteWriter writer;
    writer.u64(viewerMicros);
    return std::move(writer.data);
}

Result<Ping, WireError> Ping::decode(ByteView data) {
    ByteReader reader(data);
    const auto viewer = reader.u64();
    if (!viewer) return WireError::malformed;
    return Ping{.viewerMicros = *viewer};
}

Bytes Pong::encode() const {
    ByteWriter writer;
    writer.u64(viewerMicros);
    writer.u64(serverMicros);
    writer.u32(serverCPUPermille);
    writer.u32(droppedFrames);
    return std::move(writer.data);
}

Result<Pong, WireError> Pong::decode(ByteView data) {
    ByteReader reader(data);
    const auto viewer = reader.u64();
    const auto server = reader.u64();
    const auto cpu = reader.u32();
    const auto dropped = reader.u32();
    if (!viewer || !server || !cpu || !dropped) return WireError::malformed;
    return Pong{.viewerMicros = *viewer,
                .serverMicros = *server,
                .serverCPUPermille = *cpu,
                .droppedFrames = *dropped};
}

}  // namespace velmora
