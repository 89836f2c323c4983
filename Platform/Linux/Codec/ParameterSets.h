#pragma once

#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// What a sequence parameter set says of its stream, read before any decoder is given it: parameter sets
/// come from the other side and may claim anything.
struct StreamShape {
    PixelSize size;        // after cropping
    PixelSize coded;       // as the decoder allocates it
    int chromaFormat = 1;  // 0 grey, 1 4:2:0, 2 4:2:2, 3 4:4:4
    int bitDepth = 8;      // the larger of luma and chroma
    Bytes profile;  // H.264: profile, constraints, level. HEVC: the 12 bytes of general profile and level
};

/// Reads the first sequence parameter set and checks that the kinds are complete (SPS and PPS, for HEVC a
/// VPS as well) and small enough for their length fields. Fails in words.
Result<StreamShape> describeParameterSets(VideoCodec codec, const std::vector<Bytes>& sets);

/// The sets as the decoder configuration record of ISO/IEC 14496-15 (avcC or hvcC) with 4-byte NAL lengths.
/// `sets` have passed `describeParameterSets`, which gave `shape`.
Bytes decoderConfiguration(VideoCodec codec, const std::vector<Bytes>& sets, const StreamShape& shape);

}  // namespace velmora
