#include "Platform/Linux/Codec/ParameterSets.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace velmora {
namespace {

enum class SetKind { video, sequence, picture, unknown };

SetKind kindOf(VideoCodec codec, ByteView set) {
    if (codec == VideoCodec::h264) {
        const int type = set[0] & 0x1F;
        return type == 7 ? SetKind::sequence : type == 8 ? SetKind::picture : SetKind::unknown;
    }
    switch ((set[0] >> 1) & 0x3F) {
        case 32:
            return SetKind::video;
        case 33:
            return SetKind::sequence;
        case 34:
            return SetKind::picture;
    }
    return SetKind::unknown;
}

/// The bits of a NAL unit's payload: emulation prevention bytes are gone (7.4.1 of H.264). Reading past the
/// end gives zeros and is remembered.
class BitReader {
public:
    explicit BitReader(ByteView payload) {
        bytes_.reserve(payload.size());
        int zeros = 0;
        for (const std::uint8_t byte : payload) {
            if (zeros >= 2 && byte == 3) {
                zeros = 0;
                continue;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            bytes_.push_back(byte);
        }
    }

    bool failed() const { return failed_; }
    bool flag() { return bits(1) != 0; }

    std::uint32_t bits(int count) {
        std::uint32_t value = 0;
        for (int i = 0; i < count; ++i) value = value << 1 | bit();
        return value;
    }
    void skip(int count) {
        for (int i = 0; i < count; ++i) bit();
    }
    /// Exponential Golomb code; more than `limit` counts as malformed.
    std::uint32_t golomb(std::uint32_t limit) {
        int zeros = 0;
        while (!failed_ && bit() == 0) ++zeros;
        if (zeros > 31) failed_ = true;
        if (failed_) return 0;
        const std::uint64_t value = (std::uint64_t{1} << zeros) - 1 + bits(zeros);
        if (value <= limit) return static_cast<std::uint32_t>(value);
        failed_ = true;
        return 0;
    }
    void skipGolomb() { golomb(UINT32_MAX); }
    std::int32_t signedGolomb() {
        const std::uint32_t code = golomb(UINT32_MAX - 1);
        const auto half = static_cast<std::int64_t>((std::uint64_t{code} + 1) / 2);
        return static_cast<std::int32_t>(code % 2 == 1 ? half : -half);
    }

private:
    std::uint32_t bit() {
        if (at_ >= bytes_.size() * 8) {
            failed_ = true;
            return 0;
        }
        const std::uint32_t value = bytes_[at_ / 8] >> (7 - at_ % 8) & 1;
        ++at_;
        return value;
    }

    Bytes bytes_;
    std::size_t at_ = 0;
    bool failed_ = false;
};

constexpr std::uint32_t maxSide = 1 << 17;  // both standards stay far below

void skipScalingList(BitReader& reader, int size) {
    int last = 8, next = 8;
    for (int i = 0; i < size && !reader.failed(); ++i) {
        if (next != 0) next = static_cast<int>((last + std::int64_t{reader.signedGolomb()} + 256) % 256);
        last = next == 0 ? last : next;
    }
}

struct Crop {
    std::uint32_t left = 0, right = 0, top = 0, bottom = 0;
};

Crop readCrop(BitReader& reader) {
    Crop crop;
    if (reader.flag()) {
        crop.left = reader.golomb(maxSide);
        crop.right = reader.golomb(maxSide);
        crop.top = reader.golomb(maxSide);
        crop.bottom = reader.golomb(maxSide);
    }
    return crop;
}

PixelSize cropped(PixelSize coded, const Crop& crop, int unitX, int unitY) {
    return {coded.width - static_cast<int>(crop.left + crop.right) * unitX,
            coded.height - static_cast<int>(crop.top + crop.bottom) * unitY};
}

/// H.264 7.3.2.1.1 up to the cropping; what follows (VUI) concerns the decoder alone.
std::optional<StreamShape> readH264(ByteView set) {
    if (set.size() < 5) return std::nullopt;
    StreamShape shape;
    shape.profile.assign(set.begin() + 1, set.begin() + 4);
    BitReader reader(set.subspan(4));
    reader.golomb(31);
    static constexpr std::array highProfiles{100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::find(highProfiles.begin(), highProfiles.end(), shape.profile[0]) != highProfiles.end()) {
        shape.chromaFormat = static_cast<int>(reader.golomb(3));
        if (shape.chromaFormat == 3) reader.flag();
        const auto luma = reader.golomb(6), chroma = reader.golomb(6);
        shape.bitDepth = 8 + static_cast<int>(std::max(luma, chroma));
        reader.flag();
        if (reader.flag()) {
            const int lists = shape.chromaFormat == 3 ? 12 : 8;
            for (int i = 0; i < lists; ++i) {
                if (reader.flag()) skipScalingList(reader, i < 6 ? 16 : 64);
            }
        }
    }
    reader.golomb(12);
    const auto orderType = reader.golomb(2);
    if (orderType == 0) reader.golomb(12);
    if (orderType == 1) {
        reader.flag();
        reader.skipGolomb();
        reader.skipGolomb();
        const auto cycle = reader.golomb(255);
        for (std::uint32_t i = 0; i < cycle; ++i) reader.skipGolomb();
    }
    reader.golomb(16);
    reader.flag();
    const auto columns = reader.golomb(maxSide / 16) + 1, rows = reader.golomb(maxSide / 16) + 1;
    const bool framesOnly = reader.flag();
    if (!framesOnly) reader.flag();
    reader.flag();
    const int rowHeight = framesOnly ? 16 : 32;
    shape.coded = {static_cast<int>(columns) * 16, static_cast<int>(rows) * rowHeight};
    const int unitX = shape.chromaFormat == 1 || shape.chromaFormat == 2 ? 2 : 1;
    const int unitY = (shape.chromaFormat == 1 ? 2 : 1) * (framesOnly ? 1 : 2);
    shape.size = cropped(shape.coded, readCrop(reader), unitX, unitY);
    if (reader.failed()) return std::nullopt;
    return shape;
}

/// H.265 7.3.2.2.1 up to the bit depths.
std::optional<StreamShape> readHevc(ByteView set) {
    if (set.size() < 16) return std::nullopt;
    StreamShape shape;
    BitReader reader(set.subspan(2));
    reader.skip(4);
    const auto subLayers = reader.bits(3);
    reader.flag();
    for (int i = 0; i < 12; ++i) shape.profile.push_back(static_cast<std::uint8_t>(reader.bits(8)));
    std::uint32_t profiles = 0, levels = 0;
    for (std::uint32_t i = 0; i < subLayers; ++i) {
        profiles += reader.flag() ? 1 : 0;
        levels += reader.flag() ? 1 : 0;
    }
    if (subLayers > 0) reader.skip(static_cast<int>(8 - subLayers) * 2);
    reader.skip(static_cast<int>(profiles * 88 + levels * 8));
    reader.golomb(15);
    shape.chromaFormat = static_cast<int>(reader.golomb(3));
    if (shape.chromaFormat == 3) reader.flag();
    const auto width = reader.golomb(maxSide), height = reader.golomb(maxSide);
    shape.coded = {static_cast<int>(width), static_cast<int>(height)};
    const int unitX = shape.chromaFormat == 1 || shape.chromaFormat == 2 ? 2 : 1;
    const int unitY = shape.chromaFormat == 1 ? 2 : 1;
    shape.size = cropped(shape.coded, readCrop(reader), unitX, unitY);
    const auto luma = reader.golomb(8), chroma = reader.golomb(8);
    shape.bitDepth = 8 + static_cast<int>(std::max(luma, chroma));
    if (reader.failed()) return std::nullopt;
    return shape;
}

void appendSets(Bytes& out, VideoCodec codec, const std::vector<Bytes>& sets, SetKind kind) {
    for (const Bytes& set : sets) {
        if (kindOf(codec, set) != kind) continue;
        out.push_back(static_cast<std::uint8_t>(set.size() >> 8));
        out.push_back(static_cast<std::uint8_t>(set.size()));
        out.insert(out.end(), set.begin(), set.end());
    }
}

std::size_t countOf(VideoCodec codec, const std::vector<Bytes>& sets, SetKind kind) {
    return static_cast<std::size_t>(std::count_if(
        sets.begin(), sets.end(), [&](const Bytes& set) { return kindOf(codec, set) == kind; }));
}

Bytes avcConfiguration(const std::vector<Bytes>& sets, const StreamShape& shape) {
    constexpr auto codec = VideoCodec::h264;
    Bytes out{1, shape.profile[0], shape.profile[1], shape.profile[2],
              0xFF};  // reserved ones, 4-byte lengths
    out.push_back(static_cast<std::uint8_t>(0xE0 | countOf(codec, sets, SetKind::sequence)));
    appendSets(out, codec, sets, SetKind::sequence);
    out.push_back(static_cast<std::uint8_t>(countOf(codec, sets, SetKind::picture)));
    appendSets(out, codec, sets, SetKind::picture);
    return out;
}

Bytes hevcConfiguration(const std::vector<Bytes>& sets, const StreamShape& shape) {
    constexpr auto codec = VideoCodec::hevc;
    const auto depth = static_cast<std::uint8_t>(0xF8 | (shape.bitDepth - 8));
    Bytes out;
    out.reserve(64);
    out.push_back(1);
    out.insert(out.end(), shape.profile.begin(), shape.profile.end());
    out.insert(out.end(), {0xF0, 0x00, 0xFC, static_cast<std::uint8_t>(0xFC | shape.chromaFormat), depth,
                           depth, 0x00, 0x00,  // no average frame rate
                           0x0F});             // one temporal layer, nested, 4-byte lengths
    out.push_back(3);
    static constexpr std::array<std::pair<SetKind, std::uint8_t>, 3> arrays{
        {{SetKind::video, 32}, {SetKind::sequence, 33}, {SetKind::picture, 34}}};
    for (const auto& [kind, type] : arrays) {
        out.push_back(static_cast<std::uint8_t>(0x80 | type));
        out.push_back(0);
        out.push_back(static_cast<std::uint8_t>(countOf(codec, sets, kind)));
        appendSets(out, codec, sets, kind);
    }
    return out;
}

}  // namespace

Result<StreamShape> describeParameterSets(VideoCodec codec, const std::vector<Bytes>& sets) {
    constexpr std::size_t maxLength = 65535, maxSequences = 31, maxOthers = 255;
    std::optional<StreamShape> shape;
    for (const Bytes& set : sets) {
        if (set.size() < 2 || set.size() > maxLength) {
            return Failure{fmt::format("a parameter set of {} bytes", set.size())};
        }
        if (kindOf(codec, set) != SetKind::sequence || shape) continue;
        shape = codec == VideoCodec::h264 ? readH264(set) : readHevc(set);
        if (!shape) return Failure{"a malformed sequence parameter set"};
    }
    if (!shape) return Failure{"no sequence parameter set"};
    if (countOf(codec, sets, SetKind::sequence) > maxSequences) return Failure{"too many parameter sets"};
    const std::size_t pictures = countOf(codec, sets, SetKind::picture);
    if (pictures == 0) return Failure{"no picture parameter set"};
    if (pictures > maxOthers) return Failure{"too many parameter sets"};
    if (codec == VideoCodec::hevc) {
        const std::size_t videos = countOf(codec, sets, SetKind::video);
        if (videos == 0) return Failure{"no video parameter set"};
        if (videos > maxOthers) return Failure{"too many parameter sets"};
    }
    if (shape->size.width <= 0 || shape->size.height <= 0) {
        return Failure{"a sequence parameter set that crops its picture away"};
    }
    return *std::move(shape);
}

Bytes decoderConfiguration(VideoCodec codec, const std::vector<Bytes>& sets, const StreamShape& shape) {
    return codec == VideoCodec::h264 ? avcConfiguration(sets, shape) : hevcConfiguration(sets, shape);
}

}  // namespace velmora
