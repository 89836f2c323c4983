#include "Testing/FakeVideoDecompressor.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace velmora {
namespace {

/// Big-endian numbers from the front; too few bytes are remembered and give zeros.
class Reader {
public:
    explicit Reader(ByteView data) : data_(data) {}
    std::uint32_t number(std::size_t bytes) {
        if (data_.size() < bytes) {
            failed_ = true;
            data_ = {};
            return 0;
        }
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) value = value << 8 | data_[i];
        data_ = data_.subspan(bytes);
        return value;
    }
    bool failed() const { return failed_; }
    ByteView rest() const { return data_; }

private:
    ByteView data_;
    bool failed_ = false;
};

std::uint32_t checkOf(ByteView data) {
    std::uint32_t hash = 2166136261U;
    for (const std::uint8_t byte : data) hash = (hash ^ byte) * 16777619U;
    return hash;
}

std::optional<PixelSize> sizeOf(const std::vector<Bytes>& sets) {
    for (const Bytes& set : sets) {
        if (set.size() != 5 || set[0] != 'S') continue;
        const PixelSize size{set[1] << 8 | set[2], set[3] << 8 | set[4]};
        if (size.width > 0 && size.height > 0) return size;
    }
    return std::nullopt;
}

/// Middle of the range that a sample with `shift` bits missing stands for.
std::uint8_t sampleOf(std::uint32_t value, std::uint32_t shift) {
    const std::uint32_t half = shift == 0 ? 0 : 1U << (shift - 1);
    return static_cast<std::uint8_t>(std::min<std::uint32_t>(255, (value << shift) + half));
}

/// One part into its plane; false if it does not fit there or ends early.
bool readPart(Reader& reader, PictureBuffer& picture) {
    const auto plane = reader.number(1), row = reader.number(2), x = reader.number(2),
               count = reader.number(2);
    const auto shift = reader.number(1);
    const auto divisor = plane == 0 ? 1U : 2U;
    const auto width = static_cast<std::uint32_t>(picture.size.width) / divisor;
    const auto height = static_cast<std::uint32_t>(picture.size.height) / divisor;
    if (reader.failed() || plane > 2 || row >= height || x + count > width || shift > 8) return false;
    std::uint8_t* start = plane == 0 ? picture.y : plane == 1 ? picture.u : picture.v;
    std::uint8_t* samples =
        start + std::size_t{row} * std::size_t(plane == 0 ? picture.strideY : picture.strideUV) + x;
    for (std::uint32_t done = 0; done < count;) {
        const auto run = reader.number(1), value = reader.number(1);
        if (reader.failed() || run == 0 || done + run > count) return false;
        std::memset(samples + done, sampleOf(value, shift), run);
        done += run;
    }
    return true;
}

}  // namespace

FakeVideoDecompressor::FakeVideoDecompressor(const StreamConfig& config, bool isHardware)
    : codec_(config.codec), parameterSets_(config.parameterSets), isHardware_(isHardware) {}

Result<SharedPicture> FakeVideoDecompressor::decode(ByteView data) {
    if (failNext) {
        const Failure failure = *failNext;
        failNext.reset();
        lastNumber_.reset();
        return failure;
    }
    const auto fail = [this](const char* text) {
        lastNumber_.reset();
        return Failure{text};
    };
    Reader reader(data);
    if (reader.number(4) != reader.rest().size()) return fail("a length that does not add up");
    const auto kind = reader.number(1), number = reader.number(4), width = reader.number(2),
               height = reader.number(2);
    const auto check = reader.number(4);
    if (reader.failed() || check != checkOf(reader.rest())) return fail("a damaged frame");
    const bool key = kind == 0x65;
    if (!key && (!lastNumber_ || number != *lastNumber_ + 1))
        return fail("a picture whose predecessor is missing");
    if (key && nextParameterSets_) parameterSets_ = *std::exchange(nextParameterSets_, std::nullopt);
    const PixelSize size{static_cast<int>(width), static_cast<int>(height)};
    if (sizeOf(parameterSets_) != size) return fail("a size that is not in the parameter sets");
    // Pictures given out are shared, so each is drawn into a copy of the last.
    auto next = std::make_shared<PictureBuffer>(size);
    if (!key) {
        const auto length = static_cast<std::size_t>(next->strideY) * static_cast<std::size_t>(size.height);
        const auto lengthUV =
            static_cast<std::size_t>(next->strideUV) * static_cast<std::size_t>((size.height + 1) / 2);
        std::memcpy(next->y, picture_->y, length);
        std::memcpy(next->u, picture_->u, lengthUV);
        std::memcpy(next->v, picture_->v, lengthUV);
    }
    while (!reader.rest().empty()) {
        if (!readPart(reader, *next)) return fail("a malformed part");
    }
    picture_ = next;
    lastNumber_ = number;
    ++decoded;
    return PictureBuffer::view(next);
}

bool FakeVideoDecompressor::accepts(const StreamConfig& config) {
    if (config.codec != codec_ || !sizeOf(config.parameterSets)) return false;
    nextParameterSets_ = config.parameterSets;
    return true;
}

bool FakeVideoDecompressorFactory::canDescribe(const StreamConfig& config) {
    return sizeOf(config.parameterSets).has_value();
}

Result<std::unique_ptr<VideoDecompressor>> FakeVideoDecompressorFactory::make(const StreamConfig& config) {
    if (failure) return *failure;
    if (!canDescribe(config)) return Failure{"no size in the parameter sets"};
    auto decompressor = std::make_unique<FakeVideoDecompressor>(config, isHardware);
    newest = decompressor.get();
    ++made;
    return std::unique_ptr<VideoDecompressor>(std::move(decompressor));
}

}  // namespace velmora
