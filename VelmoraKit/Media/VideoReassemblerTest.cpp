#include "VelmoraKit/Media/VideoReassembler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>

#include "VelmoraKit/Media/VideoPackets.h"

namespace velmora {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class VideoReassemblerTest : public testing::Test {
protected:
    using Output = VideoReassembler::Output;

    /// A record of `packets` packets that tells its number; a difference frame unless it is to be a keyframe.
    static Bytes difference(std::uint32_t frame, std::size_t packets = 2) {
        return record(frame, packets, 0);
    }
    static Bytes keyframe(std::uint32_t frame, std::size_t packets = 2) { return record(frame, packets, 1); }

    Output receive(Bytes datagram) { return reassembler.add(std::move(datagram), now); }
    /// All packets of a record, or only those with the given indices.
    Output receiveFrame(std::uint32_t frame, const Bytes& record, std::vector<std::size_t> only = {}) {
        const auto packets = VideoPackets::split(record, frame, 200);
        Output last;
        if (only.empty()) {
            for (const SharedBytes& packet : packets) last = reassembler.add(*packet, now);
        }
        for (std::size_t index : only) last = reassembler.add(*packets[index], now);
        return last;
    }
    Output checkAfter(double seconds) {
        now += seconds;
        return reassembler.check(now);
    }
    static Bytes datagram(std::uint32_t frame, std::uint16_t index, std::uint16_t count, Bytes slice = {}) {
        ByteWriter writer;
        writer.u32(frame);
        writer.u32(std::uint32_t{index} << 16 | count);
        writer.bytes(slice);
        return writer.data;
    }

    VideoReassembler reassembler;
    double now = 1000;

private:
    static Bytes record(std::uint32_t frame, std::size_t packets, std::uint8_t first) {
        Bytes bytes(200 * packets - 1, static_cast<std::uint8_t>(frame));
        bytes[0] = first;
        return bytes;
    }
};

TEST_F(VideoReassemblerTest, packetsInAnyOrderGiveTheSameFrame) {
    Bytes record(2000);
    std::mt19937 random(7);
    std::ranges::generate(record, [&] { return static_cast<std::uint8_t>(random()); });
    auto packets = VideoPackets::split(record, 1, 200);
    std::ranges::reverse(packets);
    for (std::uint32_t frame = 1; frame <= 20; ++frame) {
        Output output;
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_THAT(output.frames, IsEmpty()) << "before the last packet";
            Bytes packet = *packets[i];
            packet[3] = static_cast<std::uint8_t>(frame);
            output = receive(std::move(packet));
        }
        EXPECT_THAT(output.frames, ElementsAre(record));
        std::ranges::shuffle(packets, random);
    }
    EXPECT_EQ(reassembler.waitingBytes(), 0U);
    EXPECT_FALSE(reassembler.hasHole());
}

TEST_F(VideoReassemblerTest, anEmptyPacketIsAWholeEmptyFrameAndLessThanAHeaderIsNothing) {
    EXPECT_THAT(receive(Bytes(7, 1)).frames, IsEmpty());
    EXPECT_FALSE(reassembler.next());
    EXPECT_THAT(receive(datagram(1, 0, 1)).frames, ElementsAre(Bytes{}));
}

TEST_F(VideoReassemblerTest, theFirstPacketFixesWhereTheStreamBegins) {
    receiveFrame(100, difference(100), {1});
    EXPECT_THAT(receiveFrame(99, difference(99)).frames, IsEmpty());
    EXPECT_EQ(reassembler.newest(), 100U);
    EXPECT_THAT(checkAfter(0.02).nacks, ElementsAre(Nack{.frame = 100, .indices = {0}}));
}

TEST_F(VideoReassemblerTest, lateAndRepeatedPacketsChangeNothing) {
    receiveFrame(1, difference(1));
    EXPECT_THAT(receiveFrame(1, difference(1)).frames, IsEmpty());
    EXPECT_FALSE(reassembler.hasHole());
    receiveFrame(2, difference(2), {0, 0, 0});
    const auto once = reassembler.waitingBytes();
    receiveFrame(2, difference(2), {0});
    EXPECT_EQ(reassembler.waitingBytes(), once);
    EXPECT_THAT(receiveFrame(2, difference(2), {1}).frames, ElementsAre(difference(2)));
    EXPECT_EQ(reassembler.waitingBytes(), 0U);
}

TEST_F(VideoReassemblerTest, whatWaitsBehindAHoleComesOutInOrderWhenItCloses) {
    receiveFrame(1, keyframe(1));
    receiveFrame(3, difference(3));
    receiveFrame(4, keyframe(4));
    EXPECT_THAT(receiveFrame(2, difference(2), {0}).frames, IsEmpty());
    const Output closed = receiveFrame(2, difference(2), {1});
    EXPECT_THAT(closed.frames, ElementsAre(difference(2), difference(3), keyframe(4)));
    EXPECT_FALSE(closed.gap) << "a keyframe skips nothing unless a gap was told";
}

TEST_F(VideoReassemblerTest, aFrameThatIsMissingAltogetherIsAskedForWhole) {
    receiveFrame(3, difference(3));
    receiveFrame(5, difference(5));
    EXPECT_THAT(checkAfter(0.019).nacks, IsEmpty());
    EXPECT_THAT(checkAfter(0.001).nacks, ElementsAre(Nack{.frame = 4}));
}

TEST_F(VideoReassemblerTest, asksFourTimesThenGivesUpAndGoesOn) {
    receiveFrame(1, difference(1, 5), {1, 3});
    receiveFrame(2, difference(2));
    std::vector<double> asked;
    const double start = now;
    for (int tick = 1; tick < 250; ++tick) {
        const Output output = checkAfter(0.001);
        if (output.nacks.empty()) continue;
        asked.push_back(now - start);
        EXPECT_THAT(output.nacks, ElementsAre(Nack{.frame = 1, .indices = {0, 2, 4}}));
    }
    EXPECT_THAT(asked, ElementsAre(testing::DoubleNear(0.02, 0.0015), testing::DoubleNear(0.08, 0.0025),
                                   testing::DoubleNear(0.14, 0.0035), testing::DoubleNear(0.2, 0.0045)));
    const Output output = checkAfter(0.003);
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.nacks, IsEmpty());
    EXPECT_THAT(output.frames, ElementsAre(difference(2)));
    EXPECT_FALSE(reassembler.hasHole());
}

TEST_F(VideoReassemblerTest, theRepeatIntervalFollowsTheDelayAboveItsFloor) {
    struct Case {
        double nackDelay, tooEarly, due;
    };
    for (const Case& c : {Case{0.01, 0.049, 0.05}, Case{0.02, 0.059, 0.06}, Case{0.03, 0.089, 0.09}}) {
        VideoReassembler fresh;
        fresh.nackDelay = c.nackDelay;
        fresh.add(datagram(1, 0, 2), now);
        const double first = now + c.nackDelay;
        ASSERT_EQ(fresh.check(first).nacks.size(), 1U);
        EXPECT_THAT(fresh.check(first + c.tooEarly).nacks, IsEmpty());
        EXPECT_EQ(fresh.check(first + c.due).nacks.size(), 1U);
    }
}

TEST_F(VideoReassemblerTest, frameAfterFrameIsGivenUpInOnePass) {
    receiveFrame(1, difference(1), {0});
    EXPECT_FALSE(reassembler.check(now + 0.25).gap) << "not older than the limit yet";
    receiveFrame(2, difference(2), {1});
    receiveFrame(3, difference(3));
    const Output output = checkAfter(0.3);
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.frames, ElementsAre(difference(3)));
    EXPECT_EQ(reassembler.next(), 4U);
}

// After an outage

TEST_F(VideoReassemblerTest, manyHolesThatAreMendedOneByOneDoNotHoldThePictureUpForLong) {
    receiveFrame(1, keyframe(1));
    receiveFrame(62, difference(62, 1));  // sixty were lost
    const double back = now;
    std::optional<double> gapAfter;
    std::uint32_t mended = 0;
    for (std::uint32_t live = 63; !gapAfter && live < 400; ++live) {
        now += 1.0 / 60;
        auto output = receiveFrame(live, difference(live, 1));
        // The repair takes 40 ms, so that none of the holes grows old.
        if (!output.gap && (live - 62) % 4 == 0) {
            ++mended;
            const auto hole = static_cast<std::uint32_t>(*reassembler.next());
            output = receiveFrame(hole, difference(hole, 1));
        }
        if (output.gap) gapAfter = now - back;
    }
    EXPECT_GT(mended, 3U);
    ASSERT_TRUE(gapAfter);
    EXPECT_NEAR(*gapAfter, reassembler.longestLag, 0.025);
    // From here on a keyframe is all that is waited for.
    const auto next = static_cast<std::uint32_t>(*reassembler.newest()) + 2;
    EXPECT_THAT(receiveFrame(next, keyframe(next)).frames, ElementsAre(keyframe(next)));
}

TEST_F(VideoReassemblerTest, aWholeKeyframeBehindAToldGapComesOutAtOnce) {
    receiveFrame(1, difference(1), {0});
    receiveFrame(10, difference(10));
    EXPECT_TRUE(checkAfter(0.3).gap);
    EXPECT_EQ(reassembler.next(), 2U);

    EXPECT_THAT(receiveFrame(60, keyframe(60), {0}).frames, IsEmpty());
    EXPECT_THAT(receiveFrame(61, difference(61)).frames, IsEmpty());
    const Output output = receiveFrame(60, keyframe(60), {1});
    EXPECT_THAT(output.frames, ElementsAre(keyframe(60), difference(61)));
    EXPECT_FALSE(reassembler.hasHole());
    EXPECT_EQ(reassembler.waitingBytes(), 0U);
}

TEST_F(VideoReassemblerTest, aKeyframeThatAlreadyWaitsComesOutInThePassThatTellsTheGap) {
    receiveFrame(1, difference(1), {0});
    receiveFrame(20, keyframe(20));
    receiveFrame(30, keyframe(30));
    const Output output = checkAfter(0.3);
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.frames, ElementsAre(keyframe(30))) << "the newest: what is before it is worthless too";
}

TEST_F(VideoReassemblerTest, wholeFramesRightAfterAGapAreNotSkipped) {
    receiveFrame(1, difference(1), {0});
    receiveFrame(2, difference(2));
    receiveFrame(3, keyframe(3));
    EXPECT_THAT(checkAfter(0.3).frames, ElementsAre(difference(2), keyframe(3)));
    receiveFrame(5, keyframe(5));
    EXPECT_EQ(reassembler.next(), 4U) << "the keyframe has come: holes are mended again";
}

TEST_F(VideoReassemblerTest, afterAGapAKeyframeThatLacksPacketsIsRepairedBeforeTheHolesBeforeIt) {
    receiveFrame(1, difference(1), {0});
    receiveFrame(10, difference(10));
    checkAfter(0.3);
    EXPECT_TRUE(receiveFrame(60, keyframe(60, 3), {0}).gap);
    receiveFrame(60, keyframe(60, 3), {2});
    EXPECT_THAT(checkAfter(0.021).nacks, ElementsAre(Nack{.frame = 60, .indices = {1}}));

    receiveFrame(65, keyframe(65), {0});
    EXPECT_EQ(reassembler.next(), 60U) << "a repair under way is not dropped for another beginning";
    EXPECT_THAT(receiveFrame(65, keyframe(65), {1}).frames, ElementsAre(keyframe(65)));
}

// A peer that errs or lies

TEST_F(VideoReassemblerTest, aStrayIndexLeavesTheFrameIncomplete) {
    receive(datagram(1, 0, 2, {0}));
    EXPECT_THAT(receive(datagram(1, 7, 2, {1})).frames, IsEmpty())
        << "as many parts as the count, but not all";
    EXPECT_THAT(checkAfter(0.021).nacks, ElementsAre(Nack{.frame = 1, .indices = {1}}));
    receive(datagram(2, 0, 1, {9}));
    const Output output = checkAfter(0.3);
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.frames, ElementsAre(Bytes{9}));
}

TEST_F(VideoReassemblerTest, aCountOfZeroIsNeverWhole) {
    EXPECT_THAT(receive(datagram(1, 0, 0, {1})).frames, IsEmpty());
    EXPECT_THAT(checkAfter(0.021).nacks, ElementsAre(Nack{.frame = 1}));
    EXPECT_TRUE(checkAfter(0.3).gap);
}

TEST_F(VideoReassemblerTest, theLastCountRulesAndMayTakeAKeyframeApartAgain) {
    receive(datagram(1, 0, 2));
    now += 0.2;
    receive(datagram(4, 0, 1, {1}));
    receive(datagram(4, 0, 2, {3}));
    const Output output = checkAfter(0.1);
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.frames, IsEmpty());
    EXPECT_THAT(receive(datagram(4, 1, 2, {6})).frames, ElementsAre(Bytes{3, 6}));
}

TEST_F(VideoReassemblerTest, aNumberFarAheadCostsNoWorkForTheOnesBetween) {
    receiveFrame(1, difference(1));
    receiveFrame(0xFFFFFFFF, keyframe(9));
    EXPECT_THAT(checkAfter(0.021).nacks, ElementsAre(Nack{.frame = 2}));
    const Output output = checkAfter(0.3);  // walking to the keyframe would take minutes
    EXPECT_TRUE(output.gap);
    EXPECT_THAT(output.frames, ElementsAre(keyframe(9)));
    EXPECT_THAT(receiveFrame(1, difference(1)).frames, IsEmpty()) << "there is no number after the last";
    EXPECT_FALSE(reassembler.hasHole());
}

TEST_F(VideoReassemblerTest, waitingPacketsAreBoundedAndTheHoleInFrontIsGivenUp) {
    receiveFrame(1, difference(1), {0});
    bool gap = false;
    std::size_t came = 0;
    for (std::uint32_t frame = 1000; !gap && frame < 100'000; ++frame) {
        const Output output = receive(datagram(frame * 1000, 0, 1, Bytes(1000)));
        gap = output.gap;
        came += output.frames.size();
        ASSERT_LE(reassembler.waitingBytes(), reassembler.memoryLimit);
    }
    EXPECT_TRUE(gap);
    EXPECT_EQ(came, 1U) << "no more than needed is given up";
}

TEST_F(VideoReassemblerTest, aFrameTooLargeToWaitForIsGivenUp) {
    bool gap = false;
    for (std::uint16_t index = 0; index < 65534 && !gap; ++index) {
        gap = receive(datagram(1, index, 65535, Bytes(1400))).gap;
        ASSERT_LE(reassembler.waitingBytes(), reassembler.memoryLimit);
    }
    EXPECT_TRUE(gap);
    EXPECT_EQ(reassembler.waitingBytes(), 0U);
    EXPECT_THAT(receiveFrame(2, difference(2)).frames, ElementsAre(difference(2)));
}

/// Loss, reordering and repair together: whatever comes out is a frame that was sent, in order, and without
/// an untold hole.
TEST_F(VideoReassemblerTest, aLossyLinkWithRepairsGivesEveryFrameOrAGap) {
    std::mt19937 random(42);
    const auto chance = [&](double share) {
        return std::uniform_real_distribution(0.0, 1.0)(random) < share;
    };
    std::vector<Bytes> sent(1);
    std::vector<Bytes> link;  // what arrives in this tick
    std::size_t expected = 1, delivered = 0;
    const auto apply = [&](const Output& output) {
        for (const Nack& nack : output.nacks) {
            for (const SharedBytes& packet : VideoPackets::split(sent[nack.frame], nack.frame, 200)) {
                const int index = VideoPackets::headerOf(*packet)->index;
                if (nack.indices.empty() || std::ranges::count(nack.indices, index) > 0)
                    link.push_back(*packet);
            }
        }
        for (const Bytes& frame : output.frames) {
            const auto at = std::find(sent.begin() + std::ptrdiff_t(expected), sent.end(), frame);
            ASSERT_NE(at, sent.end());
            const auto number = static_cast<std::size_t>(at - sent.begin());
            ASSERT_TRUE(output.gap || number == expected) << number;
            expected = number + 1;
            ++delivered;
        }
        if (output.gap && output.frames.empty()) expected = *reassembler.next();
    };
    for (std::uint32_t frame = 1; frame <= 500; ++frame) {
        Bytes record(1 + random() % 3000);
        std::ranges::generate(record, [&] { return static_cast<std::uint8_t>(random()); });
        sent.push_back(record);
        std::vector<Bytes> arriving = std::move(link);
        link.clear();
        for (const SharedBytes& packet : VideoPackets::split(record, frame, 200)) arriving.push_back(*packet);
        std::ranges::shuffle(arriving, random);
        now += 1.0 / 60;
        for (Bytes& packet : arriving) {
            if (frame > 1 && chance(0.1)) continue;
            apply(reassembler.add(std::move(packet), now));
            if (HasFatalFailure()) return;
        }
        apply(reassembler.check(now));
    }
    EXPECT_GT(delivered, 400U);
}

}  // namespace
}  // namespace velmora
