#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora::DER {

/// The distinguished encoding rules of ASN.1 (X.690), as far as one certificate needs them.

enum class Tag : std::uint8_t {
    integer = 0x02,
    bitString = 0x03,
    objectIdentifier = 0x06,
    utf8String = 0x0c,
    utcTime = 0x17,
    sequence = 0x30,
    set = 0x31,
    context0 = 0xa0,
};

/// Tag, length, content. A length below 128 is one byte; a longer one is 0x80 plus the number of length
/// bytes, then the length, big-endian in the fewest bytes.
Bytes tagged(Tag tag, ByteView content);
/// The parts one after the other, as one content.
Bytes tagged(Tag tag, std::initializer_list<Bytes> parts);

Bytes utf8(std::string_view text);
/// "yyMMddHHmmssZ" in UTC.
Bytes utcTime(std::chrono::system_clock::time_point date);
/// Whole bytes: no unused bits.
Bytes bitString(ByteView content);

}  // namespace velmora::DER
