#include "Platform/Linux/Codec/NalUnits.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

std::vector<Bytes> owned(const std::vector<ByteView>& units) {
    std::vector<Bytes> all;
    for (const ByteView unit : units) all.emplace_back(unit.begin(), unit.end());
    return all;
}

TEST(NalUnitsTest, splitsAByteStreamAtStartCodesOfBothLengths) {
    const Bytes stream{0x00, 0x00, 0x00, 0x01, 0x67, 0x11, 0x00, 0x00, 0x01, 0x68, 0x22,
                       0x00, 0x00, 0x00, 0x00, 0x01, 0x65, 0x00, 0x00, 0x03, 0x01, 0x00};
    EXPECT_EQ(owned(splitAnnexB(stream)),
              (std::vector<Bytes>{{0x67, 0x11}, {0x68, 0x22}, {0x65, 0x00, 0x00, 0x03, 0x01}}));
    EXPECT_TRUE(splitAnnexB({}).empty());
    EXPECT_TRUE(splitAnnexB(Bytes{0x00, 0x00}).empty());
    EXPECT_TRUE(splitAnnexB(Bytes{0x00, 0x00, 0x01}).empty());
    EXPECT_TRUE(splitAnnexB(Bytes{0x65, 0x01}).empty()) << "no start code at all";
    EXPECT_EQ(owned(splitAnnexB(Bytes{0, 0, 1, 0, 0, 1, 0x41})), (std::vector<Bytes>{{0x41}}));
}

TEST(NalUnitsTest, rewritesAKeyframeWithItsParameterSetsApart) {
    // Delimiter, PPS before SPS, SEI, two slices of an IDR picture, filler.
    const Bytes stream{0,    0,    0, 1,    0x09, 0xF0, 0,    0,    0,    1,    0x68, 0xCE, 0,
                       0,    0,    1, 0x67, 0x64, 0,    0,    1,    0x06, 0x05, 0,    0,    1,
                       0x65, 0x88, 0, 0,    1,    0x65, 0x99, 0xAA, 0,    0,    1,    0x0C, 0xFF};
    const auto picture = rewriteAnnexB(VideoCodec::h264, stream);
    ASSERT_TRUE(picture);
    EXPECT_TRUE(picture->isKeyframe);
    EXPECT_EQ(picture->parameterSets, (std::vector<Bytes>{{0x67, 0x64}, {0x68, 0xCE}}));
    EXPECT_EQ(picture->data,
              (Bytes{0, 0, 0, 2, 0x06, 0x05, 0, 0, 0, 2, 0x65, 0x88, 0, 0, 0, 3, 0x65, 0x99, 0xAA}));
}

TEST(NalUnitsTest, rewritesHevc) {
    const Bytes key{0, 0, 0, 1, 0x40, 0x01, 0xA0, 0, 0, 0, 1,    0x42, 0x01, 0xB0,
                    0, 0, 0, 1, 0x44, 0x01, 0xC0, 0, 0, 1, 0x26, 0x01, 0xD0};
    const auto picture = rewriteAnnexB(VideoCodec::hevc, key);
    ASSERT_TRUE(picture);
    EXPECT_TRUE(picture->isKeyframe);
    EXPECT_EQ(picture->parameterSets,
              (std::vector<Bytes>{{0x40, 0x01, 0xA0}, {0x42, 0x01, 0xB0}, {0x44, 0x01, 0xC0}}));
    EXPECT_EQ(picture->data, (Bytes{0, 0, 0, 3, 0x26, 0x01, 0xD0}));

    const auto delta = rewriteAnnexB(VideoCodec::hevc, Bytes{0, 0, 1, 0x02, 0x01, 0xE0});
    ASSERT_TRUE(delta);
    EXPECT_FALSE(delta->isKeyframe);
    EXPECT_FALSE(delta->parameterSets);
}

TEST(NalUnitsTest, aStreamWithoutASliceIsNoPicture) {
    EXPECT_FALSE(rewriteAnnexB(VideoCodec::h264, Bytes{0, 0, 0, 1, 0x67, 0x64, 0, 0, 1, 0x68, 0xCE}));
    EXPECT_FALSE(rewriteAnnexB(VideoCodec::h264, {}));
}

TEST(NalUnitsTest, lengthsMustAddUpExactly) {
    const auto count = [](const Bytes& data) -> int {
        int units = 0;
        return forEachLengthPrefixed(data, [&](ByteView) { ++units; }) ? units : -1;
    };
    EXPECT_EQ(count({}), 0);
    EXPECT_EQ(count({0, 0, 0, 1, 9, 0, 0, 0, 2, 9, 9}), 2);
    EXPECT_EQ(count({0, 0, 0, 2, 9}), -1);
    EXPECT_EQ(count({0, 0, 0, 1, 9, 9}), -1);
    EXPECT_EQ(count({0, 0, 0, 0}), -1) << "an empty unit";
    EXPECT_EQ(count({0xFF, 0xFF, 0xFF, 0xFF, 9}), -1);
}

}  // namespace
}  // namespace velmora
