#include "VelmoraKit/Wire/ClipboardContent.h"

namespace velmora {

Bytes ClipboardContent::encode() const {
    ByteWriter writer(1 + data.size());
    writer.u8(static_cast<std::uint8_t>(kind));
    writer.bytes(data);
    return std::move(writer.data);
}

Result<ClipboardContent, WireError> ClipboardContent::decode(ByteView message) {
    if (message.empty() || message[0] > static_cast<std::uint8_t>(Kind::files)) return WireError::malformed;
    const ByteView data = message.subspan(1);
    return ClipboardContent{static_cast<Kind>(message[0]), {data.begin(), data.end()}};
}

}  // namespace velmora
