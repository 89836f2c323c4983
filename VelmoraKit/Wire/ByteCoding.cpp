#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

namespace {

template <class Value>
void appendBigEndian(Bytes& out, Value value) {
    for (int shift = 8 * (int(sizeof(Value)) - 1); shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

template <class Value>
Value bigEndian(ByteView bytes) {
    Value value = 0;
    for (std::uint8_t byte : bytes) value = static_cast<Value>(value << 8 | byte);
    return value;
}

}  // namespace

void ByteWriter::u32(std::uint32_t value) {
    appendBigEndian(data, value);
}

void ByteWriter::u64(std::uint64_t value) {
    appendBigEndian(data, value);
}

Result<ByteView, WireError> ByteReader::bytes(std::int64_t count) {
    const std::size_t left = data_.size() - offset_;
    if (count < 0 || static_cast<std::uint64_t>(count) > left) return WireError::malformed;
    const ByteView taken = data_.subspan(offset_, static_cast<std::size_t>(count));
    offset_ += taken.size();
    return taken;
}

ByteView ByteReader::remaining() {
    const ByteView rest = data_.subspan(offset_);
    offset_ = data_.size();
    return rest;
}

Result<std::uint8_t, WireError> ByteReader::u8() {
    const auto taken = bytes(1);
    if (!taken) return WireError::malformed;
    return taken->front();
}

Result<std::uint32_t, WireError> ByteReader::u32() {
    const auto taken = bytes(4);
    if (!taken) return WireError::malformed;
    return bigEndian<std::uint32_t>(*taken);
}

Result<std::uint64_t, WireError> ByteReader::u64() {
    const auto taken = bytes(8);
    if (!taken) return WireError::malformed;
    return bigEndian<std::uint64_t>(*taken);
}

}  // namespace velmora
