#include "VelmoraKit/Wire/CursorShape.h"

#include <cassert>
#include <cmath>
#include <limits>

namespace velmora {

namespace {

std::uint32_t hundredths(double points) {
    constexpr double largest = std::numeric_limits<std::uint32_t>::max();
    const double scaled = std::round(points * 100);
    assert(!(scaled > largest) && !std::isinf(scaled) && "no pointer is this large");
    if (!(scaled > 0)) return 0;  // NaN too
    return static_cast<std::uint32_t>(std::min(scaled, largest));
}

}  // namespace

Bytes CursorShape::encode() const {
    ByteWriter writer(16 + png.size());
    writer.u32(hundredths(width));
    writer.u32(hundredths(height));
    writer.u32(hundredths(hotX));
    writer.u32(hundredths(hotY));
    writer.bytes(png);
    return std::move(writer.data);
}

Result<CursorShape, WireError> CursorShape::decode(ByteView data) {
    ByteReader reader(data);
    const auto width = reader.u32();
    const auto height = reader.u32();
    const auto hotX = reader.u32();
    const auto hotY = reader.u32();
    if (!width || !height || !hotX || !hotY) return WireError::malformed;
    const ByteView png = reader.remaining();
    return CursorShape{.width = *width / 100.0,
                       .height = *height / 100.0,
                       .hotX = *hotX / 100.0,
                       .hotY = *hotY / 100.0,
                       .png = {png.begin(), png.end()}};
}

}  // namespace velmora
