#include "VelmoraKit/Wire/VideoRecords.h"

#include <algorithm>
#include <cassert>
#include <limits>

namespace velmora {

Bytes StreamConfig::encode() const {
    assert(parameterSets.size() <= 255 && "the count is one byte");
    ByteWriter writer;
    writer.u8(static_cast<std::uint8_t>(codec));
    writer.u8(isDynamic ? 1 : 0);
    writer.u32(width);
    writer.u32(height);
    writer.u8(static_cast<std::uint8_t>(parameterSets.size()));
    for (const Bytes& set : parameterSets) {
        assert(set.size() <= std::numeric_limits<std::uint32_t>::max() && "the length is 32 bits");
        writer.u32(static_cast<std::uint32_t>(set.size()));
        writer.bytes(set);
    }
    return std::move(writer.data);
}

Result<StreamConfig, WireError> StreamConfig::decode(ByteView data) {
    ByteReader reader(data);
    const auto codec = reader.u8();
    if (!codec || *codec > static_cast<std::uint8_t>(VideoCodec::hevc)) return WireError::malformed;
    const auto isDynamic = reader.u8();
    const auto width = reader.u32();
    const auto height = reader.u32();
    const auto count = reader.u8();
    if (!isDynamic || !width || !height || !count) return WireError::malformed;

    StreamConfig config{.codec = static_cast<VideoCodec>(*codec),
                        .isDynamic = (*isDynamic & 1) != 0,
                        .width = *width,
                        .height = *height};
    for (int i = 0; i < *count; ++i) {
        const auto length = reader.u32();
        if (!length) return WireError::malformed;
        const auto set = reader.bytes(*length);
        if (!set) return WireError::malformed;
        config.parameterSets.emplace_back(set->begin(), set->end());
    }
    return config;
}

template <class Storage>
Bytes BasicVideoFrame<Storage>::encode() const {
    ByteWriter writer(headerSize + data.size());
    writer.u8(isKeyframe ? 1 : 0);
    writer.u64(captureMicros);
    writer.u64(submitMicros);
    writer.u64(encodedMicros);
    writer.bytes(data);
    return std::move(writer.data);
}

template <class Storage>
Result<BasicVideoFrame<Storage>, WireError> BasicVideoFrame<Storage>::decode(ByteView data) {
    ByteReader reader(data);
    const auto isKeyframe = reader.u8();
    const auto capture = reader.u64();
    const auto submit = reader.u64();
    const auto encoded = reader.u64();
    if (!isKeyframe || !capture || !submit || !encoded) return WireError::malformed;
    const ByteView rest = reader.remaining();
    return BasicVideoFrame{.isKeyframe = (*isKeyframe & 1) != 0,
                           .captureMicros = *capture,
                           .submitMicros = *submit,
                           .encodedMicros = *encoded,
                           .data = Storage(rest.begin(), rest.end())};
}

template <class Storage>
void BasicVideoFrame<Storage>::writeHeader(std::span<std::uint8_t, headerSize> out) const {
    const VideoFrameView headerOnly{.isKeyframe = isKeyframe,
                                    .captureMicros = captureMicros,
                                    .submitMicros = submitMicros,
                                    .encodedMicros = encodedMicros};
    std::ranges::copy(headerOnly.encode(), out.begin());
}

template struct BasicVideoFrame<Bytes>;
template struct BasicVideoFrame<ByteView>;

Bytes Nack::encode() const {
    assert(indices.size() <= 0xFFFF && "the count is 16 bits");
    ByteWriter writer(6 + 2 * indices.size());
    const auto u16 = [&](std::size_t value) {
        writer.u8(static_cast<std::uint8_t>(value >> 8));
        writer.u8(static_cast<std::uint8_t>(value));
    };
    writer.u32(frame);
    u16(indices.size());
    for (int index : indices) {
        assert(index >= 0 && index <= 0xFFFF && "an index is 16 bits");
        u16(static_cast<std::size_t>(index));
    }
    return std::move(writer.data);
}

Result<Nack, WireError> Nack::decode(ByteView data) {
    ByteReader reader(data);
    const auto frame = reader.u32();
    const auto count = reader.bytes(2);
    if (!frame || !count) return WireError::malformed;
    const auto u16 = [](ByteView pair) { return pair[0] << 8 | pair[1]; };
    const auto indices = reader.bytes(2 * u16(*count));
    if (!indices) return WireError::malformed;

    Nack nack{.frame = *frame};
    nack.indices.reserve(indices->size() / 2);
    for (std::size_t at = 0; at < indices->size(); at += 2)
        nack.indices.push_back(u16(indices->subspan(at, 2)));
    return nack;
}

}  // namespace velmora
