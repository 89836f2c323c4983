#pragma once

#include <cstddef>
#include <cstdint>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// Both ways: what somebody copied. 0 kind u8 | 1 data, to the end of the message.
struct ClipboardContent {
    enum class Kind : std::uint8_t {
        text = 0,   // UTF-8
        png = 1,    // a PNG file
        files = 2,  // packed files and folders
    };
    static constexpr std::size_t maxBytes = 8 << 20;       // of a text or picture
    static constexpr std::size_t maxFileBytes = 60 << 20;  // of the contents of all files together

    Kind kind = Kind::text;
    Bytes data;

    Bytes encode() const;
    static Result<ClipboardContent, WireError> decode(ByteView message);
    bool operator==(const ClipboardContent&) const = default;
};

}  // namespace velmora
