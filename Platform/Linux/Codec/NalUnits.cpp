#include "Platform/Linux/Codec/NalUnits.h"

#include <algorithm>

namespace velmora {
namespace {

int typeOf(VideoCodec codec, ByteView nal) {
    return codec == VideoCodec::h264 ? nal[0] & 0x1F : (nal[0] >> 1) & 0x3F;
}

NalKind h264Kind(int type) {
    if (type == 5) return NalKind::keyPicture;
    if (type >= 1 && type <= 4) return NalKind::picture;
    if (type == 7 || type == 8) return NalKind::parameterSet;
    if (type >= 9 && type <= 12) return NalKind::filler;
    return NalKind::other;
}

NalKind hevcKind(int type) {
    if (type >= 16 && type <= 23) return NalKind::keyPicture;  // IRAP
    if (type < 32) return NalKind::picture;
    if (type <= 34) return NalKind::parameterSet;
    if (type <= 38) return NalKind::filler;
    return NalKind::other;
}

}  // namespace

NalKind nalKind(VideoCodec codec, ByteView nal) {
    if (nal.empty()) return NalKind::filler;
    return codec == VideoCodec::h264 ? h264Kind(typeOf(codec, nal)) : hevcKind(typeOf(codec, nal));
}

std::vector<ByteView> splitAnnexB(ByteView data) {
    std::vector<ByteView> units;
    std::optional<std::size_t> begin;
    const auto finishAt = [&](std::size_t end) {
        if (!begin) return;
        while (end > *begin && data[end - 1] == 0) --end;
        if (end > *begin) units.push_back(data.subspan(*begin, end - *begin));
    };
    for (std::size_t i = 0; i + 3 <= data.size();) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            finishAt(i);
            i += 3;
            begin = i;
        } else {
            ++i;
        }
    }
    finishAt(data.size());
    return units;
}

void appendLengthPrefixed(Bytes& out, ByteView nal) {
    const auto length = static_cast<std::uint32_t>(nal.size());
    for (const int shift : {24, 16, 8, 0}) out.push_back(static_cast<std::uint8_t>(length >> shift));
    out.insert(out.end(), nal.begin(), nal.end());
}

std::optional<CompressedPicture> rewriteAnnexB(VideoCodec codec, ByteView data) {
    CompressedPicture picture;
    bool hasSlice = false;
    std::vector<ByteView> sets;
    picture.data.reserve(data.size() + 64);
    for (const ByteView nal : splitAnnexB(data)) {
        const NalKind kind = nalKind(codec, nal);
        if (kind == NalKind::filler) continue;
        if (kind == NalKind::parameterSet) {
            sets.push_back(nal);
            continue;
        }
        hasSlice = hasSlice || kind == NalKind::picture || kind == NalKind::keyPicture;
        picture.isKeyframe = picture.isKeyframe || kind == NalKind::keyPicture;
        appendLengthPrefixed(picture.data, nal);
    }
    if (!hasSlice) return std::nullopt;
    if (picture.isKeyframe && !sets.empty()) {
        std::stable_sort(sets.begin(), sets.end(),
                         [codec](ByteView a, ByteView b) { return typeOf(codec, a) < typeOf(codec, b); });
        picture.parameterSets.emplace();
        for (const ByteView set : sets) picture.parameterSets->emplace_back(set.begin(), set.end());
    }
    return picture;
}

}  // namespace velmora
