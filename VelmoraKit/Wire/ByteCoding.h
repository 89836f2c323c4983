#pragma once

#include <cstddef>
#include <cstdint>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Why bytes or JSON from a peer are not the record they should be: cut short, a negative length, or a value
/// that the format does not know. Whoever decodes drops that one message and keeps the connection.
enum class WireError { malformed };

/// Appends big-endian fields to `data`. There is no length prefix anywhere unless the record writes one.
struct ByteWriter {
    Bytes data;

    ByteWriter() = default;
    explicit ByteWriter(std::size_t expectedSize) { data.reserve(expectedSize); }

    void u8(std::uint8_t value) { data.push_back(value); }
    void u32(std::uint32_t value);
    void u64(std::uint64_t value);
    void bytes(ByteView raw) { data.insert(data.end(), raw.begin(), raw.end()); }
};

/// Reads big-endian fields from borrowed bytes, which must outlive the reader and every view it gave out.
/// A read that fails consumes nothing.
class ByteReader {
public:
    explicit ByteReader(ByteView data) : data_(data) {}

    Result<std::uint8_t, WireError> u8();
    Result<std::uint32_t, WireError> u32();
    Result<std::uint64_t, WireError> u64();

    /// Exactly `count` bytes; malformed if `count` is negative or more than what remains.
    Result<ByteView, WireError> bytes(std::int64_t count);

    /// Everything that has not been read, perhaps nothing; consumes it.
    ByteView remaining();

    std::size_t offset() const { return offset_; }

private:
    ByteView data_;
    std::size_t offset_ = 0;
};

}  // namespace velmora
