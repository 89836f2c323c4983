#include "VelmoraKit/Wire/AudioPacket.h"

namespace velmora {

Bytes AudioPacket::encode() const {
    ByteWriter writer(8 + opus.size());
    writer.u64(captureMicros);
    writer.bytes(opus);
    return std::move(writer.data);
}

Result<AudioPacket, WireError> AudioPacket::decode(ByteView data) {
    ByteReader reader(data);
    const auto capture = reader.u64();
    const ByteView opus = reader.remaining();
    if (!capture || opus.empty()) return WireError::malformed;
    return AudioPacket{.captureMicros = *capture, .opus = {opus.begin(), opus.end()}};
}

}  // namespace velmora
