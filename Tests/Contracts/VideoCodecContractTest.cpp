// What host and viewer rely on in a compressor and the decompressor that reads it, whichever pair it is.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Platform/Linux/Codec/X264Compressor.h"
#include "Platform/Linux/Codec/X265Compressor.h"
#include "Testing/DesktopScene.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ImageCompare.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

using Configuration = VideoCompressor::Configuration;
using Kind = DesktopScene::Kind;

struct Pair {
    std::string name;
    VideoCodec codec;
    bool changesBitRate;
    std::function<Result<std::unique_ptr<VideoCompressor>>(const Configuration&)> compressor;
    std::function<std::unique_ptr<VideoDecompressorFactory>()> decompressors;
};

std::unique_ptr<VideoDecompressorFactory> libavcodec() {
    return std::make_unique<AvcodecDecompressorFactory>(AvcodecDecompressor::Parameters{});
}

Pair fakePair() {
    return {
        "Fake", VideoCodec::h264, true,
        [](const Configuration& configuration) { return FakeVideoCompressorFactory().make(configuration); },
        [] { return std::make_unique<FakeVideoDecompressorFactory>(); }};
}
Pair x264Pair() {
    return {"X264AndLibavcodec", VideoCodec::h264, true, X264Compressor::open, libavcodec};
}

Pair x265Pair() {
    return {"X265AndLibavcodec", VideoCodec::hevc, false, X265Compressor::open, libavcodec};
}

/// Whether lengths and units fill the frame exactly.
bool isLengthPrefixed(const Bytes& data) {
    std::size_t at = 0;
    while (at + 4 <= data.size()) {
        const std::size_t length = std::size_t{data[at]} << 24 | std::size_t{data[at + 1]} << 16 |
                                   std::size_t{data[at + 2]} << 8 | data[at + 3];
        if (length == 0) return false;
        at += 4 + length;
    }
    return at == data.size() && !data.empty();
}

bool contains(const Bytes& data, const Bytes& part) {
    return std::search(data.begin(), data.end(), part.begin(), part.end()) != data.end();
}

/// A picture that no codec finds easy; another one for each seed.
SharedPicture noise(PixelSize size, unsigned seed) {
    auto picture = std::make_shared<PictureBuffer>(size);
    std::mt19937 random(seed);
    for (int row = 0; row < size.height; ++row) {
        for (int x = 0; x < size.width; ++x) {
            picture->y[row * picture->strideY + x] = static_cast<std::uint8_t>(90 + random() % 64);
        }
    }
    return PictureBuffer::view(picture);
}

class VideoCodecContract : public testing::TestWithParam<Pair> {
protected:
    static constexpr PixelSize size{320, 192};

    void SetUp() override {
        factory = GetParam().decompressors();
        open({.codec = GetParam().codec, .size = size, .bitsPerSecond = 8'000'000, .framesPerSecond = 30});
    }

    void open(const Configuration& configuration) {
        auto made = GetParam().compressor(configuration);
        ASSERT_TRUE(made.ok()) << made.error().text;
        compressor = std::move(made).value();
    }

    CompressedPicture encode(const SharedPicture& picture, VideoCompressor::Options options = {}) {
        auto compressed = compressor->encode(*picture, options);
        EXPECT_TRUE(compressed.ok()) << (compressed.ok() ? "" : compressed.error().text);
        return compressed.ok() ? std::move(compressed).value() : CompressedPicture{};
    }
    CompressedPicture encodeWhole(const SharedPicture& picture, bool forceKeyframe = false) {
        const PixelRect all{0, 0, picture->size.width, picture->size.height};
        return encode(picture, {.forceKeyframe = forceKeyframe, .damage = {&all, 1}});
    }
    CompressedPicture repeat(const SharedPicture& picture) { return encode(picture, {.refine = true}); }

    StreamConfig configOf(const CompressedPicture& keyframe) const {
        return {.codec = GetParam().codec,
                .parameterSets = keyframe.parameterSets.value_or(std::vector<Bytes>{})};
    }
    void openDecompressor(const CompressedPicture& keyframe) {
        auto made = factory->make(configOf(keyframe));
        ASSERT_TRUE(made.ok()) << made.error().text;
        decompressor = std::move(made).value();
    }
    SharedPicture decode(const CompressedPicture& compressed) {
        if (!decompressor) openDecompressor(compressed);
        if (!decompressor) return nullptr;
        auto picture = decompressor->decode(compressed.data);
        return picture.ok() ? *picture : nullptr;
    }

    std::unique_ptr<VideoCompressor> compressor;
    std::unique_ptr<VideoDecompressorFactory> factory;
    std::unique_ptr<VideoDecompressor> decompressor;
};

TEST_P(VideoCodecContract, givesEachPictureAtOnceAndFaithfully) {
    for (const Kind kind : {Kind::typing, Kind::scroll, Kind::motion}) {
        DesktopScene scene(size, kind);
        SCOPED_TRACE(static_cast<int>(kind));
        for (int i = 0; i < 12; ++i) {
            const auto damage = scene.step();
            const auto compressed = encode(scene.view(), {.forceKeyframe = i == 0, .damage = damage});
            const auto shown = decode(compressed);
            ASSERT_TRUE(shown) << "picture " << i;
            EXPECT_EQ(shown->size, size);
            EXPECT_GT(ssimLuma(*shown, *scene.view()), 0.85) << "picture " << i;
            EXPECT_GT(psnr(*shown, *scene.view()), 24) << "picture " << i;
        }
    }
}

TEST_P(VideoCodecContract, beginsWithAKeyframeAndMakesOthersOnlyOnRequest) {
    DesktopScene scene(size, Kind::scroll);  // looks like a new scene at every step
    for (int i = 0; i < 70; ++i) {
        const bool asked = i == 20;
        const auto compressed = encodeWhole(scene.view(), asked);
        EXPECT_EQ(compressed.isKeyframe, i == 0 || asked) << "picture " << i;
        EXPECT_EQ(compressed.parameterSets.has_value(), compressed.isKeyframe);
        scene.step();
    }
}

TEST_P(VideoCodecContract, putsLengthsBeforeUnitsAndParameterSetsApart) {
    DesktopScene scene(size, Kind::typing);
    const auto key = encodeWhole(scene.view());
    ASSERT_TRUE(key.parameterSets);
    EXPECT_EQ(key.parameterSets->size(), GetParam().codec == VideoCodec::hevc ? 3U : 2U);
    EXPECT_TRUE(isLengthPrefixed(key.data));
    for (const Bytes& set : *key.parameterSets) {
        EXPECT_FALSE(set.size() > 4 && set[0] == 0 && set[1] == 0 && set[2] <= 1) << "a length or start code";
        EXPECT_FALSE(set.size() > 4 && contains(key.data, set));
    }
    const auto damage = scene.step();
    EXPECT_TRUE(isLengthPrefixed(encode(scene.view(), {.damage = damage}).data));
    EXPECT_TRUE(factory->canDescribe(configOf(key)));
}

TEST_P(VideoCodecContract, anyKeyframeStartsAViewerThatJoinsLate) {
    DesktopScene scene(size, Kind::typing);
    encodeWhole(scene.view());
    for (int i = 0; i < 5; ++i) encode(scene.view(), {.damage = scene.step()});
    const auto key = encodeWhole(scene.view(), true);
    const auto first = decode(key);
    ASSERT_TRUE(first);
    EXPECT_GT(ssimLuma(*first, *scene.view()), 0.95);
    const auto damage = scene.step();
    const auto second = decode(encode(scene.view(), {.damage = damage}));
    ASSERT_TRUE(second);
    EXPECT_GT(ssimLuma(*second, *scene.view()), 0.95);
}

TEST_P(VideoCodecContract, keepsToItsRateAndFollowsAChange) {
    if (!GetParam().changesBitRate) {
        EXPECT_FALSE(compressor->setRate(1'000'000, 500ms));
        return;
    }
    unsigned seed = 0;
    const auto secondAt = [&](std::int64_t bits) {
        std::size_t bytes = 0;
        for (int i = 0; i < 30; ++i) bytes += encodeWhole(noise(size, ++seed)).data.size();
        return static_cast<double>(bytes) * 8 / static_cast<double>(bits);
    };
    ASSERT_TRUE(compressor->setRate(6'000'000, 500ms));
    EXPECT_LT(secondAt(6'000'000), 1.6);
    EXPECT_LT(secondAt(6'000'000), 1.5);
    ASSERT_TRUE(compressor->setRate(1'500'000, 500ms));
    secondAt(1'500'000);  // the buffer filled at the higher rate may still run down
    const double low = secondAt(1'500'000);
    EXPECT_LT(low, 1.5);
    EXPECT_GT(low, 0.3);
    ASSERT_TRUE(compressor->setRate(6'000'000, 500ms));
    secondAt(6'000'000);
    EXPECT_GT(secondAt(1'500'000), 2 * low) << "stayed low";
}

TEST_P(VideoCodecContract, codesTheDamageOnly) {
    DesktopScene scene(size, Kind::typing);
    decode(encodeWhole(scene.view()));
    for (int i = 0; i < 20; ++i) decode(repeat(scene.view()));
    const auto whole = encodeWhole(scene.snapshot(), true);
    decode(whole);
    for (int i = 0; i < 20; ++i) decode(repeat(scene.view()));

    const auto before = scene.snapshot();
    const auto damage = scene.step();
    const auto compressed = encode(scene.view(), {.damage = damage});
    const auto shown = decode(compressed);
    ASSERT_TRUE(shown);
    EXPECT_LT(compressed.data.size(), whole.data.size() / 8);
    for (PixelRect rect : damage) {
        EXPECT_GT(ssimLuma(partOf(lumaOf(*shown), rect), partOf(lumaOf(*scene.view()), rect)), 0.95);
    }
    const PixelRect elsewhere{0, 0, size.width, 32};
    EXPECT_GT(worstWindow(partOf(lumaOf(*shown), elsewhere), partOf(lumaOf(*before), elsewhere)), 0.9);

    const auto nothing = encode(scene.view());
    EXPECT_LT(nothing.data.size(), whole.data.size() / 8);
    EXPECT_TRUE(decode(nothing));
}

TEST_P(VideoCodecContract, repeatsMakeACoarsePictureSharp) {
    open({.codec = GetParam().codec, .size = size, .bitsPerSecond = 2'000'000, .framesPerSecond = 30});
    for (unsigned i = 0; i < 20; ++i) ASSERT_TRUE(decode(encodeWhole(noise(size, i))));
    const auto picture = noise(size, 99);
    auto last = encodeWhole(picture);
    const auto coarse = decode(last);
    ASSERT_TRUE(coarse);
    const double before = ssimLuma(*coarse, *picture);
    const auto quantizerBefore = last.meanQuantizer;
    SharedPicture shown;
    for (int i = 0; i < 30; ++i) {
        shown = decode(last = repeat(picture));
        ASSERT_TRUE(shown);
    }
    EXPECT_LT(before, 0.9) << "too easy a picture to show anything";
    EXPECT_GT(ssimLuma(*shown, *picture), before + 0.1);
    if (quantizerBefore && last.meanQuantizer) {
        EXPECT_LT(*last.meanQuantizer, *quantizerBefore);
    }
}

TEST_P(VideoCodecContract, showsNothingAfterDamagedInputUntilAKeyframe) {
    DesktopScene scene(size, Kind::scroll);
    std::vector<CompressedPicture> stream;
    for (int i = 0; i < 4; ++i) {
        stream.push_back(encodeWhole(scene.view()));
        scene.step();
    }
    const std::vector<std::pair<const char*, std::function<Bytes(Bytes)>>> damages{
        {"cut in half", [](Bytes data) { return data.resize(data.size() / 2), data; }},
        {"cut by one byte", [](Bytes data) { return data.pop_back(), data; }},
        {"longer than it says", [](Bytes data) { return data.push_back(0), data; }},
        {"a length past the end", [](Bytes data) { return data[0] = 0x7F, data; }},
        {"empty", [](Bytes) { return Bytes{}; }},
    };
    for (const auto& [what, damage] : damages) {
        SCOPED_TRACE(what);
        decompressor.reset();
        ASSERT_TRUE(decode(stream[0]));
        EXPECT_FALSE(decompressor->decode(damage(stream[1].data)).ok());
        EXPECT_FALSE(decompressor->decode(stream[2].data).ok()) << "shown without what it refers to";
        EXPECT_TRUE(decompressor->decode(stream[0].data).ok()) << "a keyframe must mend it";
        EXPECT_TRUE(decompressor->decode(stream[1].data).ok());
    }
}

TEST_P(VideoCodecContract, needsAKeyframeFirst) {
    DesktopScene scene(size, Kind::typing);
    const auto key = encodeWhole(scene.view());
    const auto damage = scene.step();
    const auto delta = encode(scene.view(), {.damage = damage});
    openDecompressor(key);
    EXPECT_FALSE(decompressor->decode(delta.data).ok());
    EXPECT_TRUE(decompressor->decode(key.data).ok());
    EXPECT_TRUE(decompressor->decode(delta.data).ok());
}

TEST_P(VideoCodecContract, takesAnotherSizeOverWithItsKeyframe) {
    DesktopScene small(size, Kind::typing), large({480, 320}, Kind::typing);
    ASSERT_TRUE(decode(encodeWhole(small.view())));
    const auto damage = small.step();
    const auto late = encode(small.view(), {.damage = damage});
    open({.codec = GetParam().codec, .size = {480, 320}});
    const auto key = encodeWhole(large.view());
    ASSERT_TRUE(decompressor->accepts(configOf(key)));
    EXPECT_TRUE(decode(late)) << "what the old stream still sends";
    const auto shown = decode(key);
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown->size, (PixelSize{480, 320}));
    EXPECT_GT(ssimLuma(*shown, *large.view()), 0.95);
    const auto next = large.step();
    EXPECT_TRUE(decode(encode(large.view(), {.damage = next})));
    EXPECT_TRUE(decompressor->accepts(configOf(key))) << "the same again";
}

TEST_P(VideoCodecContract, picturesOutliveTheirDecoder) {
    DesktopScene scene(size, Kind::scroll);
    const auto first = decode(encodeWhole(scene.view()));
    ASSERT_TRUE(first);
    const auto copyOfFirst = std::vector<std::uint8_t>(first->y, first->y + first->strideY);
    for (int i = 0; i < 20; ++i) {
        scene.step();
        ASSERT_TRUE(decode(encodeWhole(scene.view())));
    }
    decompressor.reset();
    EXPECT_TRUE(std::equal(copyOfFirst.begin(), copyOfFirst.end(), first->y)) << "written to while lent";
}

TEST_P(VideoCodecContract, opensAndClosesAgainAndAgain) {
    DesktopScene scene({64, 48}, Kind::typing);
    for (int i = 0; i < 30; ++i) {
        open({.codec = GetParam().codec, .size = {64, 48}});
        decompressor.reset();
        ASSERT_TRUE(decode(encodeWhole(scene.view()))) << "round " << i;
    }
}

TEST_P(VideoCodecContract, refusesWhatItCannotDo) {
    EXPECT_FALSE(GetParam().compressor({.codec = GetParam().codec, .size = {321, 192}}).ok());
    EXPECT_FALSE(GetParam().compressor({.codec = GetParam().codec, .size = {320, 191}}).ok());
    DesktopScene other({128, 64}, Kind::still);
    EXPECT_FALSE(compressor->encode(*other.view(), {}).ok()) << "a picture of another size";
    EXPECT_FALSE(factory->canDescribe({.codec = GetParam().codec}));
    EXPECT_FALSE(factory->canDescribe({.codec = GetParam().codec, .parameterSets = {{}, {1}, {2, 3, 4}}}));
    EXPECT_FALSE(factory->make({.codec = GetParam().codec, .parameterSets = {{0x67}, {0x68}}}).ok());
}

void PrintTo(const Pair& pair, std::ostream* out) {
    *out << pair.name;
}

INSTANTIATE_TEST_SUITE_P(Codecs, VideoCodecContract, testing::Values(fakePair(), x264Pair(), x265Pair()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace velmora
