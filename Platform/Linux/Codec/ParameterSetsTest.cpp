#include "Platform/Linux/Codec/ParameterSets.h"

#include <gtest/gtest.h>

#include "Platform/Linux/Codec/X264Compressor.h"
#include "Platform/Linux/Codec/X265Compressor.h"
#include "Testing/DesktopScene.h"

namespace velmora {
namespace {

// Written out by hand from H.264 7.3.2.1: High 4:2:2 profile, level 3.1; sps id 0, chroma format 2, 10 bits
// twice, frame number and order count of 4 bits, one reference, 80x45 macroblocks, frames only, no cropping.
// ue: 1 | 011 | 011 | 011 | 0 | 0 | 1 | 1 | 1 | 010 | 0 | 0000001010000 | 00000101101 | 1 | 1 | 0 | 0 | stop
const Bytes tenBits{0x67, 0x7A, 0x00, 0x1F, 0xB6, 0xCE, 0x80, 0x50, 0x05, 0xB9};

std::vector<Bytes> setsOf(Result<std::unique_ptr<VideoCompressor>> compressor, PixelSize size) {
    EXPECT_TRUE(compressor.ok());
    DesktopScene scene(size, DesktopScene::Kind::still);
    auto key = compressor.value()->encode(*scene.view(), {.forceKeyframe = true});
    EXPECT_TRUE(key.ok() && key->parameterSets);
    return *key->parameterSets;
}

TEST(ParameterSetsTest, readsSizeProfileAndSampleForm) {
    const PixelSize odd{1366, 770};  // neither side a multiple of a block
    const auto h264 =
        describeParameterSets(VideoCodec::h264, setsOf(X264Compressor::open({.size = odd}), odd));
    ASSERT_TRUE(h264.ok()) << h264.error().text;
    EXPECT_EQ(h264->size, odd);
    EXPECT_EQ(h264->coded, (PixelSize{1376, 784}));
    EXPECT_EQ(h264->chromaFormat, 1);
    EXPECT_EQ(h264->bitDepth, 8);

    const PixelSize small{200, 120};
    const auto hevc =
        describeParameterSets(VideoCodec::hevc, setsOf(X265Compressor::open({.size = small}), small));
    ASSERT_TRUE(hevc.ok()) << hevc.error().text;
    EXPECT_EQ(hevc->size, small);
    EXPECT_EQ(hevc->bitDepth, 8);

    const auto deep = describeParameterSets(VideoCodec::h264, {tenBits, {0x68, 0xCE}});
    ASSERT_TRUE(deep.ok()) << deep.error().text;
    EXPECT_EQ(deep->size, (PixelSize{1280, 720}));
    EXPECT_EQ(deep->chromaFormat, 2);
    EXPECT_EQ(deep->bitDepth, 10);
}

TEST(ParameterSetsTest, refusesSetsThatAreIncompleteCutOrTooMany) {
    const PixelSize size{64, 48};
    for (const VideoCodec codec : {VideoCodec::h264, VideoCodec::hevc}) {
        SCOPED_TRACE(static_cast<int>(codec));
        const auto sets = codec == VideoCodec::h264 ? setsOf(X264Compressor::open({.size = size}), size)
                                                    : setsOf(X265Compressor::open({.size = size}), size);
        EXPECT_TRUE(describeParameterSets(codec, sets).ok());
        for (std::size_t missing = 0; missing < sets.size(); ++missing) {
            auto fewer = sets;
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(missing));
            EXPECT_FALSE(describeParameterSets(codec, fewer).ok()) << "without set " << missing;
        }
        const std::size_t sequence = codec == VideoCodec::h264 ? 0 : 1;
        for (std::size_t length = 0; length < 7; ++length) {
            auto cut = sets;
            cut[sequence].resize(length);
            EXPECT_FALSE(describeParameterSets(codec, cut).ok()) << "cut to " << length;
        }
        auto many = sets;
        for (int i = 0; i < 255; ++i) many.push_back(sets.back());
        EXPECT_FALSE(describeParameterSets(codec, many).ok());
        auto long_ = sets;
        long_.back().resize(65536);
        EXPECT_FALSE(describeParameterSets(codec, long_).ok());
    }
}

TEST(ParameterSetsTest, writesTheConfigurationRecord) {
    const std::vector<Bytes> sets{tenBits, {0x68, 0xCE}};
    const auto shape = describeParameterSets(VideoCodec::h264, sets);
    ASSERT_TRUE(shape.ok());
    EXPECT_EQ(decoderConfiguration(VideoCodec::h264, sets, *shape),
              (Bytes{1,    0x7A, 0x00, 0x1F, 0xFF, 0xE1, 0, 10, 0x67, 0x7A, 0x00, 0x1F,
                     0xB6, 0xCE, 0x80, 0x50, 0x05, 0xB9, 1, 0,  2,    0x68, 0xCE}));
}

}  // namespace
}  // namespace velmora
