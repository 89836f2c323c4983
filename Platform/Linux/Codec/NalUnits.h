#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/VideoCompressor.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// What a NAL unit is for, by its header (H.264 7.4.1, H.265 7.4.2.2).
enum class NalKind {
    picture,       // a slice that refers to earlier pictures
    keyPicture,    // a slice of a picture from which decoding can begin
    parameterSet,  // VPS, SPS or PPS
    filler,        // delimiters, end marks, padding: nothing a decoder needs
    other,         // SEI and whatever else
};
NalKind nalKind(VideoCodec codec, ByteView nal);

/// Calls `visit` with each unit of `data`, in which every unit stands behind its 4-byte big-endian length.
/// False, possibly after some calls, if the lengths do not add up to the data exactly or a unit is empty.
template <class Visit>
bool forEachLengthPrefixed(ByteView data, Visit visit) {
    while (!data.empty()) {
        if (data.size() < 4) return false;
        const std::size_t length = std::size_t{data[0]} << 24 | std::size_t{data[1]} << 16 |
                                   std::size_t{data[2]} << 8 | std::size_t{data[3]};
        data = data.subspan(4);
        if (length == 0 || length > data.size()) return false;
        visit(data.first(length));
        data = data.subspan(length);
    }
    return true;
}

/// The units of a byte stream (Annex B of both standards): what lies between start codes of three or four
/// bytes, without trailing zeros. Bytes before the first start code are skipped.
std::vector<ByteView> splitAnnexB(ByteView data);

void appendLengthPrefixed(Bytes& out, ByteView nal);

/// An encoder's Annex B output in the form we send: slices and SEI behind their lengths, the parameter sets
/// taken out, in order of kind (VPS, SPS, PPS), delimiters and padding dropped. It is a keyframe if its
/// slices say so. None if there is no slice in it.
std::optional<CompressedPicture> rewriteAnnexB(VideoCodec codec, ByteView data);

}  // namespace velmora
