#pragma once

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// Host to viewer, the pointer's picture: 0 width u32 | 4 height u32 | 8 hotX u32 | 12 hotY u32 | 16 png to
/// the end. The numbers are points, on the wire in hundredths; a negative one (or NaN) is sent as 0.
struct CursorShape {
    double width = 0, height = 0;
    double hotX = 0, hotY = 0;
    Bytes png;

    Bytes encode() const;
    static Result<CursorShape, WireError> decode(ByteView data);
    bool operator==(const CursorShape&) const = default;
};

}  // namespace velmora
