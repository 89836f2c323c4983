#include "VelmoraKit/Media/VideoPackets.h"

#include <gtest/gtest.h>

#include <numeric>

namespace velmora {
namespace {

Bytes recordOf(std::size_t size) {
    Bytes record(size);
    std::iota(record.begin(), record.end(), std::uint8_t{0});
    return record;
}

TEST(VideoPacketsTest, headersCountThePacketsOfTheFrame) {
    const auto packets = VideoPackets::split(recordOf(401), 0x01020304, 200);
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_EQ(Bytes(packets[1]->begin(), packets[1]->begin() + 10),
              (Bytes{1, 2, 3, 4, 0, 1, 0, 3, 200, 201}));
    EXPECT_EQ(*packets[2], (Bytes{1, 2, 3, 4, 0, 2, 0, 3, 144}));  // 400 modulo 256
    const auto header = VideoPackets::headerOf(*packets[2]);
    EXPECT_EQ(header->frame, 0x01020304U);
    EXPECT_EQ(header->index, 2);
    EXPECT_EQ(header->count, 3);
}

TEST(VideoPacketsTest, slicesAreEquallyLongButTheLast) {
    struct Case {
        std::size_t record, payload;
        std::vector<std::size_t> slices;
    };
    for (const Case& c : {Case{0, 1150, {0}}, Case{1150, 1150, {1150}}, Case{1151, 1150, {1150, 1}},
                          Case{450, 50, {200, 200, 50}}, Case{200, 0, {200}}}) {
        const Bytes record = recordOf(c.record);
        std::vector<std::size_t> slices;
        Bytes joined;
        for (const SharedBytes& packet : VideoPackets::split(record, 1, c.payload)) {
            slices.push_back(packet->size() - VideoPackets::headerSize);
            joined.insert(joined.end(), packet->begin() + VideoPackets::headerSize, packet->end());
        }
        EXPECT_EQ(slices, c.slices) << c.record << " by " << c.payload;
        EXPECT_EQ(joined, record);
    }
}

TEST(VideoPacketsTest, theLargestFrameStillHasNumbers) {
    const auto packets = VideoPackets::split(Bytes(65535 * 200), 7, 200);
    ASSERT_EQ(packets.size(), 65535U);
    EXPECT_EQ(VideoPackets::headerOf(*packets.back())->index, 65534);
    EXPECT_EQ(VideoPackets::headerOf(*packets.back())->count, 65535);
}

TEST(VideoPacketsTest, sevenBytesAreNoHeader) {
    EXPECT_FALSE(VideoPackets::headerOf(Bytes(7)));
    EXPECT_TRUE(VideoPackets::headerOf(Bytes(8)));
}

TEST(VideoPacketsTest, aHugeRecordInSmallPacketsStillHasANumberForEach) {
    const auto packets = VideoPackets::split(Bytes(VideoPackets::mostPackets * 200 + 1), 1, 200);
    ASSERT_LE(packets.size(), VideoPackets::mostPackets);
    const auto last = VideoPackets::headerOf(*packets.back());
    EXPECT_EQ(last->count, packets.size());
    EXPECT_EQ(last->index, packets.size() - 1);
}

}  // namespace
}  // namespace velmora
