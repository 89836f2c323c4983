#include "Testing/FakeVideoCompressor.h"

#include <algorithm>
#include <numeric>

namespace velmora {
namespace {

constexpr int coarsestShift = 8;

void put(Bytes& out, std::uint32_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

/// One part: `count` samples of a plane's row, coded in runs.
void putPart(Bytes& out, int plane, int row, int x, int count, int shift, const std::uint8_t* samples) {
    put(out, static_cast<std::uint32_t>(plane), 1);
    put(out, static_cast<std::uint32_t>(row), 2);
    put(out, static_cast<std::uint32_t>(x), 2);
    put(out, static_cast<std::uint32_t>(count), 2);
    put(out, static_cast<std::uint32_t>(shift), 1);
    for (int i = 0; i < count;) {
        const int value = samples[i] >> shift;
        int run = 1;
        while (i + run < count && run < 255 && samples[i + run] >> shift == value) ++run;
        put(out, static_cast<std::uint32_t>(run), 1);
        put(out, static_cast<std::uint32_t>(value), 1);
        i += run;
    }
}

/// The rows `top` up to `bottom` of all planes, between `left` and `right`; all even.
void putRows(Bytes& out, const Picture& picture, int left, int right, int top, int bottom, int shift) {
    for (int row = top; row < bottom; ++row) {
        putPart(out, 0, row, left, right - left, shift,
                picture.y + std::ptrdiff_t{row} * picture.strideY + left);
    }
    for (int row = top / 2; row < bottom / 2; ++row) {
        const int x = left / 2, count = (right - left) / 2;
        putPart(out, 1, row, x, count, shift, picture.u + std::ptrdiff_t{row} * picture.strideU + x);
        putPart(out, 2, row, x, count, shift, picture.v + std::ptrdiff_t{row} * picture.strideV + x);
    }
}

PixelRect evenWithin(const PixelRect& rect, PixelSize size) {
    const int left = std::clamp(rect.x, 0, size.width) / 2 * 2,
              top = std::clamp(rect.y, 0, size.height) / 2 * 2;
    const int right = std::clamp((rect.x + rect.width + 1) / 2 * 2, left, size.width);
    const int bottom = std::clamp((rect.y + rect.height + 1) / 2 * 2, top, size.height);
    return {left, top, right - left, bottom - top};
}

std::uint32_t checkOf(ByteView data) {
    std::uint32_t hash = 2166136261U;
    for (const std::uint8_t byte : data) hash = (hash ^ byte) * 16777619U;
    return hash;
}

}  // namespace

FakeVideoCompressor::FakeVideoCompressor(const Configuration& configuration, const Behaviour& behaviour)
    : configuration_(configuration),
      behaviour_(behaviour),
      allowance_(largestAllowance()),
      rowShift_(static_cast<std::size_t>(configuration.size.height), coarsestShift) {}

Bytes FakeVideoCompressor::codeWhole(const Picture& picture, int shift) const {
    Bytes out;
    putRows(out, picture, 0, picture.size.width, 0, picture.size.height, shift);
    return out;
}

Bytes FakeVideoCompressor::codeDamage(const Picture& picture, std::span<const PixelRect> damage,
                                      int shift) const {
    Bytes out;
    for (const PixelRect& rect : damage) {
        const PixelRect even = evenWithin(rect, picture.size);
        if (!even.isEmpty())
            putRows(out, picture, even.x, even.x + even.width, even.y, even.y + even.height, shift);
    }
    return out;
}

void FakeVideoCompressor::noteShift(const PixelRect& rect, int shift) {
    const PixelRect even = evenWithin(rect, configuration_.size);
    for (int row = even.y; row < even.y + even.height; ++row) {
        int& known = rowShift_[static_cast<std::size_t>(row)];
        known = even.width == configuration_.size.width ? shift : std::max(known, shift);
    }
}

/// Codes rows that still stand coarse in full, as many as the budget lets through.
void FakeVideoCompressor::sharpen(const Picture& picture, Bytes& out, std::size_t budget) {
    for (int row = 0; row + 1 < picture.size.height; row += 2) {
        auto& upper = rowShift_[static_cast<std::size_t>(row)];
        auto& lower = rowShift_[static_cast<std::size_t>(row + 1)];
        if (upper == 0 && lower == 0) continue;
        Bytes rows;
        putRows(rows, picture, 0, picture.size.width, row, row + 2, 0);
        if (out.size() + rows.size() > budget) return;
        out.insert(out.end(), rows.begin(), rows.end());
        upper = lower = 0;
    }
}

Result<CompressedPicture> FakeVideoCompressor::encode(const Picture& picture, const Options& options) {
    calls.push_back({options.forceKeyframe, options.refine, {options.damage.begin(), options.damage.end()}});
    if (failNext > 0) {
        --failNext;
        return Failure{"the fake was told to fail"};
    }
    if (picture.size != configuration_.size) return Failure{"a picture of another size"};
    const double perFrame =
        static_cast<double>(configuration_.bitsPerSecond) / 8 / configuration_.framesPerSecond;
    allowance_ = std::min(allowance_ + perFrame, largestAllowance());
    const auto budget = static_cast<std::size_t>(std::max(allowance_ * 0.75, 0.0));
    const bool key = options.forceKeyframe || number_ == 0;
    const PixelRect everything{0, 0, picture.size.width, picture.size.height};

    Bytes parts;
    int shift = 0;
    for (;; ++shift) {
        parts = key ? codeWhole(picture, shift) : codeDamage(picture, options.damage, shift);
        if (parts.size() <= budget || shift == coarsestShift) break;
    }
    if (key) noteShift(everything, shift);
    for (const PixelRect& rect : options.damage) {
        if (!key) noteShift(rect, shift);
    }
    if (options.refine && !key) sharpen(picture, parts, budget);
    allowance_ -= static_cast<double>(parts.size());

    Bytes unit;
    put(unit, key ? 0x65 : 0x41, 1);
    put(unit, number_++, 4);
    put(unit, static_cast<std::uint32_t>(picture.size.width), 2);
    put(unit, static_cast<std::uint32_t>(picture.size.height), 2);
    put(unit, checkOf(parts), 4);
    unit.insert(unit.end(), parts.begin(), parts.end());

    CompressedPicture compressed;
    put(compressed.data, static_cast<std::uint32_t>(unit.size()), 4);
    compressed.data.insert(compressed.data.end(), unit.begin(), unit.end());
    compressed.isKeyframe = key;
    if (key) compressed.parameterSets = parameterSets();
    compressed.meanQuantizer =
        6.0 * std::accumulate(rowShift_.begin(), rowShift_.end(), 0) / static_cast<double>(rowShift_.size());
    return compressed;
}

bool FakeVideoCompressor::setRate(std::int64_t bitsPerSecond, std::chrono::milliseconds burst) {
    if (!behaviour_.changesBitRate) return false;
    configuration_.bitsPerSecond = bitsPerSecond;
    configuration_.burst = burst;
    return true;
}

/// In bytes: half a second's, whatever the burst. Its coding is too crude to get sharp out of less.
double FakeVideoCompressor::largestAllowance() const {
    return static_cast<double>(configuration_.bitsPerSecond) / 16;
}

/// (VPS,) SPS with the size, PPS.
std::vector<Bytes> FakeVideoCompressor::parameterSets() const {
    Bytes sequence{'S'};
    put(sequence, static_cast<std::uint32_t>(configuration_.size.width), 2);
    put(sequence, static_cast<std::uint32_t>(configuration_.size.height), 2);
    std::vector<Bytes> sets{sequence, Bytes{'P', 0}};
    if (codec() == VideoCodec::hevc) sets.insert(sets.begin(), Bytes{'V', 0});
    return sets;
}

Result<std::unique_ptr<VideoCompressor>> FakeVideoCompressorFactory::make(
    const VideoCompressor::Configuration& configuration) {
    if (failure) return *failure;
    if (configuration.size.width % 2 != 0 || configuration.size.height % 2 != 0) return Failure{"odd sides"};
    auto compressor = std::make_unique<FakeVideoCompressor>(configuration, behaviour);
    newest = compressor.get();
    ++made;
    return std::unique_ptr<VideoCompressor>(std::move(compressor));
}

}  // namespace velmora
