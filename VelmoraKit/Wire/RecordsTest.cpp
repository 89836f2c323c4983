#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "VelmoraKit/Wire/AudioPacket.h"
#include "VelmoraKit/Wire/CursorShape.h"
#include "VelmoraKit/Wire/MessageType.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {
namespace {

/// One value of a record and its bytes, written by hand. `shortest` is the length below which decoding must
/// fail; a record that is `cutAtEnd` ignores what follows its last field, any other takes all of it as data.
template <class Record>
struct Sample;

template <>
struct Sample<StreamConfig> {
    static StreamConfig record() {
        return {.codec = VideoCodec::hevc,
                .isDynamic = true,
                .width = 2880,
                .height = 0xFFFFFFFF,
                .parameterSets = {{0x67, 0x64}, {}, {0x68}}};
    }
    static Bytes known() {
        return {1, 1, 0, 0, 0x0B, 0x40, 0xFF, 0xFF, 0xFF, 0xFF, 3,                  // header
                0, 0, 0, 2, 0x67, 0x64, 0,    0,    0,    0,    0, 0, 0, 1, 0x68};  // three sets
    }
    static constexpr std::size_t shortest = 26;
    static constexpr bool cutAtEnd = true;
};

template <>
struct Sample<VideoFrame> {
    static VideoFrame record() {
        return {.isKeyframe = true,
                .captureMicros = 0x0102030405060708,
                .submitMicros = 0xFFFFFFFFFFFFFFFE,
                .encodedMicros = 3,
                .data = {0xAA, 0xBB}};
    }
    static Bytes known() {
        return {1,    1,    2,    3, 4, 5, 6, 7, 8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                0xFF, 0xFF, 0xFE, 0, 0, 0, 0, 0, 0, 0,    3,    0xAA, 0xBB};
    }
    static constexpr std::size_t shortest = 25;
    static constexpr bool cutAtEnd = false;
};

template <>
struct Sample<Nack> {
    static Nack record() { return {.frame = 0x80000001, .indices = {0, 258, 65535}}; }
    static Bytes known() { return {0x80, 0, 0, 1, 0, 3, 0, 0, 1, 2, 0xFF, 0xFF}; }
    static constexpr std::size_t shortest = 12;
    static constexpr bool cutAtEnd = true;
};

template <>
struct Sample<Ping> {
    static Ping record() { return {.viewerMicros = 0xFEDCBA9876543210}; }
    static Bytes known() { return {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}; }
    static constexpr std::size_t shortest = 8;
    static constexpr bool cutAtEnd = true;
};

template <>
struct Sample<Pong> {
    static Pong record() {
        return {
            .viewerMicros = 1, .serverMicros = 0x200, .serverCPUPermille = 1234, .droppedFrames = 0x01000000};
    }
    static Bytes known() {
        return {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 4, 0xD2, 1, 0, 0, 0};
    }
    static constexpr std::size_t shortest = 24;
    static constexpr bool cutAtEnd = true;
};

template <>
struct Sample<CursorShape> {
    static CursorShape record() {
        return {.width = 16.5, .height = 24, .hotX = 0.01, .hotY = 0, .png = {0x89, 'P'}};
    }
    static Bytes known() { return {0, 0, 6, 0x72, 0, 0, 9, 0x60, 0, 0, 0, 1, 0, 0, 0, 0, 0x89, 'P'}; }
    static constexpr std::size_t shortest = 16;
    static constexpr bool cutAtEnd = false;
};

template <>
struct Sample<AudioPacket> {
    static AudioPacket record() { return {.captureMicros = 0x10203, .opus = {0xF8, 0xFF}}; }
    static Bytes known() { return {0, 0, 0, 0, 0, 1, 2, 3, 0xF8, 0xFF}; }
    static constexpr std::size_t shortest = 9;
    static constexpr bool cutAtEnd = false;
};

template <class Record>
struct BinaryRecordTest : testing::Test {};

using BinaryRecords = testing::Types<StreamConfig, VideoFrame, Nack, Ping, Pong, CursorShape, AudioPacket>;
TYPED_TEST_SUITE(BinaryRecordTest, BinaryRecords);

TYPED_TEST(BinaryRecordTest, travelsAsTheseBytes) {
    EXPECT_EQ(Sample<TypeParam>::record().encode(), Sample<TypeParam>::known());
    const auto decoded = TypeParam::decode(Sample<TypeParam>::known());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, Sample<TypeParam>::record());
}

TYPED_TEST(BinaryRecordTest, isMalformedWhenCutBeforeItsLastField) {
    const Bytes known = Sample<TypeParam>::known();
    for (std::size_t length = 0; length <= known.size(); ++length) {
        const Bytes cut(known.begin(),
                        known.begin() + std::ptrdiff_t(length));  // its own, so that a read past it shows
        EXPECT_EQ(TypeParam::decode(cut).ok(), length >= Sample<TypeParam>::shortest) << length;
    }
}

TYPED_TEST(BinaryRecordTest, takesOrIgnoresWhatFollows) {
    Bytes longer = Sample<TypeParam>::known();
    longer.push_back(0xEE);
    const auto decoded = TypeParam::decode(longer);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded == Sample<TypeParam>::record(), Sample<TypeParam>::cutAtEnd);
    EXPECT_EQ(decoded->encode(), Sample<TypeParam>::cutAtEnd ? Sample<TypeParam>::known() : longer);
}

TEST(ByteReaderTest, aFailedReadConsumesNothing) {
    const Bytes data{1, 2, 3};
    ByteReader reader(data);
    EXPECT_FALSE(reader.u32());
    EXPECT_FALSE(reader.u64());
    EXPECT_FALSE(reader.bytes(4));
    EXPECT_FALSE(reader.bytes(-1));
    EXPECT_FALSE(reader.bytes(std::numeric_limits<std::int64_t>::max()));
    EXPECT_TRUE(reader.bytes(0).value().empty());
    EXPECT_EQ(reader.u8().value(), 1);
    EXPECT_THAT(reader.remaining(), testing::ElementsAre(2, 3));
    EXPECT_TRUE(reader.remaining().empty());
    EXPECT_FALSE(reader.u8());
}

TEST(MessageTypeTest, onlyOneToNineteenAreMessages) {
    for (int byte = 0; byte < 256; ++byte) {
        const auto type = messageTypeOf(static_cast<std::uint8_t>(byte));
        ASSERT_EQ(type.has_value(), byte >= 1 && byte <= 19) << byte;
        if (type) {
            EXPECT_EQ(byteOf(*type), byte);
        }
    }
    EXPECT_EQ(byteOf(MessageType::nack), 14);
    EXPECT_EQ(byteOf(MessageType::denied), 19);
}

TEST(StreamConfigTest, keepsBitZeroOfDynamicAndRefusesOtherCodecs) {
    Bytes bytes = StreamConfig{.width = 1, .height = 2}.encode();
    bytes[1] = 0xFF;
    EXPECT_TRUE(StreamConfig::decode(bytes).value().isDynamic);
    bytes[1] = 0xFE;
    EXPECT_FALSE(StreamConfig::decode(bytes).value().isDynamic);
    bytes[0] = 2;
    EXPECT_FALSE(StreamConfig::decode(bytes));
}

TEST(StreamConfigTest, carriesAsManySetsAsTheCountHolds) {
    const StreamConfig config{.parameterSets = std::vector<Bytes>(255, Bytes{7})};
    EXPECT_EQ(StreamConfig::decode(config.encode()).value(), config);
}

TEST(StreamConfigTest, believesNoLengthThatTheBytesDoNotBear) {
    Bytes bytes = StreamConfig{.parameterSets = {{1, 2, 3}}}.encode();
    bytes[11] = 0xFF;  // the set's length becomes 4 GB
    EXPECT_FALSE(StreamConfig::decode(bytes));
}

TEST(NackTest, carriesAllIndicesOfTheLargestFrame) {
    Nack nack{.frame = 9};
    for (int index = 0; index < 65535; ++index) nack.indices.push_back(index);
    EXPECT_EQ(Nack::decode(nack.encode()).value(), nack);
}

TEST(VideoFrameTest, aViewBorrowsFromTheMessage) {
    const Bytes message = Sample<VideoFrame>::known();
    const auto view = VideoFrameView::decode(message);
    ASSERT_TRUE(view);
    EXPECT_EQ(view->data.data(), message.data() + 25);
    EXPECT_EQ(view->data.size(), 2U);
    EXPECT_EQ(view->encode(), message);
}

TEST(VideoFrameTest, aHeaderWrittenInPlaceMakesTheSameRecord) {
    Bytes buffer(VideoFrame::headerSize, 0xCC);
    buffer.insert(buffer.end(), {0xAA, 0xBB});
    Sample<VideoFrame>::record().writeHeader(std::span(buffer).first<VideoFrame::headerSize>());
    EXPECT_EQ(buffer, Sample<VideoFrame>::known());
    EXPECT_TRUE(isKeyframeRecord(buffer));
    EXPECT_FALSE(isKeyframeRecord(Bytes{0xFE}));
    EXPECT_FALSE(isKeyframeRecord({}));
}

TEST(CursorShapeTest, roundsToHundredthsAndKnowsNoNegative) {
    const CursorShape shape{
        .width = 0.126, .height = std::numeric_limits<double>::quiet_NaN(), .hotX = -3, .hotY = 1e7};
    const auto decoded = CursorShape::decode(shape.encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, (CursorShape{.width = 0.13, .height = 0, .hotX = 0, .hotY = 1e7}));
}

TEST(TextFocusTest, onlyALeadingOneIsFocus) {
    EXPECT_EQ(TextFocus{.focused = true}.encode(), Bytes{1});
    EXPECT_EQ(TextFocus{}.encode(), Bytes{0});
    EXPECT_TRUE(TextFocus::decode(Bytes{1, 0}).value().focused);
    EXPECT_FALSE(TextFocus::decode(Bytes{2}).value().focused);
    EXPECT_FALSE(TextFocus::decode({}).value().focused);
}

}  // namespace
}  // namespace velmora
