#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

enum class VideoCodec : std::uint8_t { h264 = 0, hevc = 1 };

/// Host to viewer, before the first frame and at each change of codec, size or parameter sets:
/// 0 codec u8 | 1 isDynamic u8, bit 0 | 2 width u32 | 6 height u32 | 10 count u8 | then per set: length u32,
/// bytes.
struct StreamConfig {
    VideoCodec codec = VideoCodec::h264;
    bool isDynamic = false;               // the stream follows the viewer's window (virtual display)
    std::uint32_t width = 0, height = 0;  // pixels
    std::vector<Bytes> parameterSets;     // VPS, SPS, PPS without start codes, in order; at most 255

    Bytes encode() const;
    static Result<StreamConfig, WireError> decode(ByteView data);
    bool operator==(const StreamConfig&) const = default;
};

/// Host to viewer, one compressed picture:
/// 0 isKeyframe u8, bit 0 | 1 captureMicros u64 | 9 submitMicros u64 | 17 encodedMicros u64 | 25 data to the
/// end. Moments are the host's HostClock: at capture, at submission to the encoder, at its return.
///
/// `VideoFrame` owns its data; `VideoFrameView` borrows it, so that neither sending nor receiving a large
/// frame needs a copy of its own. A view decoded from a message is good as long as that message's bytes are.
template <class Storage>
struct BasicVideoFrame {
    static constexpr std::size_t headerSize = 25;

    bool isKeyframe = false;
    std::uint64_t captureMicros = 0;
    std::uint64_t submitMicros = 0;
    std::uint64_t encodedMicros = 0;
    Storage data{};

    Bytes encode() const;
    static Result<BasicVideoFrame, WireError> decode(ByteView data);

    /// For an encoder that leaves `headerSize` bytes free in front of its output: fills them in, and the
    /// buffer is the record. `data` is not looked at.
    void writeHeader(std::span<std::uint8_t, headerSize> out) const;

    bool operator==(const BasicVideoFrame&) const = default;
};
using VideoFrame = BasicVideoFrame<Bytes>;
using VideoFrameView = BasicVideoFrame<ByteView>;
extern template struct BasicVideoFrame<Bytes>;
extern template struct BasicVideoFrame<ByteView>;

/// Whether an encoded VideoFrame record is a keyframe, by its first byte alone; false if it is empty.
inline bool isKeyframeRecord(ByteView record) {
    return !record.empty() && (record[0] & 1) != 0;
}

/// Viewer to host, datagrams to send again: 0 frame u32 | 4 count u16 | 6 indices u16 each.
/// No indices means the whole frame.
struct Nack {
    std::uint32_t frame = 0;   // datagram frame number
    std::vector<int> indices;  // each 0...65535, at most 65535 of them

    Bytes encode() const;
    static Result<Nack, WireError> decode(ByteView data);
    bool operator==(const Nack&) const = default;
};

}  // namespace velmora
