#include "Viewer/Session/ViewerStats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <limits>
#include <locale>
#include <sstream>
#include <vector>

namespace velmora {
namespace {

using std::chrono_literals::operator""s;

class ViewerStatsTest : public testing::Test {
protected:
    /// A frame of the host's clock, which is `ahead` microseconds ahead of ours: captured at 1 s of our time,
    /// 2 ms to the encoder, 4 ms in it, 10 ms on the way, 3 ms in the decoder, 5 ms to the glass.
    void receiveFrame(std::size_t bytes = 1024, bool isKeyframe = false, bool isRepeat = false) {
        const std::uint64_t t = 1'000'000;
        stats.recordFrame({.bytes = bytes,
                           .isKeyframe = isKeyframe,
                           .isRepeat = isRepeat,
                           .capture = t + ahead,
                           .submit = t + 2000 + ahead,
                           .encoded = t + 6000 + ahead,
                           .received = t + 16000,
                           .decoded = t + 19000},
                          t + 24000);
    }
    /// A pong of a host that answered half-way; `skew` makes the way there longer than the way back.
    void receivePong(std::uint64_t rtt, std::int64_t skew = 0, std::uint32_t cpu = 0,
                     std::uint32_t dropped = 0) {
        const std::uint64_t sent = 500'000;
        const std::uint64_t answered = sent + rtt / 2 + ahead + static_cast<std::uint64_t>(skew);
        stats.recordPong({.viewerMicros = sent,
                          .serverMicros = answered,
                          .serverCPUPermille = cpu,
                          .droppedFrames = dropped},
                         sent + rtt);
    }
    ViewerStats::Snapshot take(std::chrono::duration<double> interval = 1s) {
        return stats.take({.width = 1440, .height = 900, .codec = "H.264", .hardwareDecode = false},
                          interval);
    }
    static std::vector<std::string> linesOf(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) lines.push_back(line);
        return lines;
    }

    const std::uint64_t ahead = 7'000'000'000;
    ViewerStats stats{{.cpuPercent = [] { return 3.5; },
                       .wallClock = [] { return std::chrono::system_clock::from_time_t(1'700'000'000); }}};
};

TEST_F(ViewerStatsTest, aSnapshotTellsTheWholePeriod) {
    receivePong(8000, 0, 125, 2);
    receiveFrame(3072, true);
    receiveFrame(1024);
    const auto snapshot = take(2s);

    EXPECT_EQ(snapshot.overlay,
              "1440×900 H.264 · 1 fps · 0.0 Mbit/s\n"
              "frame avg 2.0 KB · max 3 KB · key 1 · dropped 2 · resend 0\n"
              "\n"
              "ms            avg    p95    max\n"
              "capture       2.0    2.0    2.0\n"
              "encode        4.0    4.0    4.0\n"
              "network      10.0   10.0   10.0\n"
              "decode        3.0    3.0    3.0\n"
              "display ≈     5.0    5.0    5.0\n"
              "total ≈      24.0   24.0   24.0\n"
              "\n"
              "RTT 8.0 ms · CPU server 12.5% · viewer 3.5%\n"
              "⚠︎ software decode");
    EXPECT_EQ(snapshot.title, "1440×900 · 1 fps · 0.0 Mbit/s · 24 ms");
    EXPECT_EQ(snapshot.shortTitle, "1440×900 · 0.0 Mbit/s");
    EXPECT_EQ(
        snapshot.csvRow,
        "2023-11-14T22:13:20Z,1440,900,H.264,1.00,0.02,2.00,3.00,1,2,2.00,2.00,4.00,4.00,10.00,10.00,3.00,"
        "3.00,5.00,24.00,24.00,24.00,8.00,12.50,3.50,0");
    EXPECT_EQ(snapshot.frames, 2);
    EXPECT_EQ(snapshot.networkP95, 10);
}

TEST_F(ViewerStatsTest, withoutAPongNothingIsSaidAcrossTheClocks) {
    receiveFrame();
    const auto snapshot = take();
    EXPECT_EQ(linesOf(snapshot.overlay)[6], "network         –      –      –");
    EXPECT_EQ(linesOf(snapshot.overlay)[9], "total ≈         –      –      –");
    EXPECT_NE(snapshot.csvRow.find("4.00,4.00,,,3.00,3.00,5.00,,,,0.00"), std::string::npos)
        << snapshot.csvRow;
    EXPECT_EQ(snapshot.title, "1440×900 · 1 fps · 0.0 Mbit/s");
    EXPECT_EQ(snapshot.networkP95, std::nullopt);
}

TEST_F(ViewerStatsTest, anEmptyPeriodShowsDashesAndZeroes) {
    receivePong(8000);
    const auto snapshot = take();
    for (int row = 4; row <= 9; ++row) {
        EXPECT_NE(linesOf(snapshot.overlay)[static_cast<std::size_t>(row)].find("–      –      –"),
                  std::string::npos);
    }
    EXPECT_NE(snapshot.csvRow.find(",0.00,0.00,0.00,0.00,0,0,0.00,0.00,0.00,0.00,,,0.00,0.00,0.00,,,,8.00,"),
              std::string::npos)
        << snapshot.csvRow;
    EXPECT_EQ(std::ranges::count(snapshot.csvRow, ','), std::ranges::count(ViewerStats::csvHeader, ','));
}

TEST_F(ViewerStatsTest, aPeriodEndsButTheClockIsRemembered) {
    receivePong(8000, 0, 125, 4);
    receiveFrame();
    stats.recordResendRequest();
    EXPECT_EQ(take().resendRequests, 1);
    receiveFrame();
    const auto second = take();
    EXPECT_EQ(second.frames, 1);
    EXPECT_EQ(second.resendRequests, 0);
    EXPECT_EQ(second.networkP95, 10);
    EXPECT_NE(second.overlay.find("dropped 0 · resend 0"), std::string::npos);
    EXPECT_NE(second.overlay.find("RTT 8.0 ms · CPU server 12.5%"), std::string::npos);
}

TEST_F(ViewerStatsTest, theQuickestRoundTripTellsTheClock) {
    receivePong(9000, 4000);
    receivePong(4000);
    receivePong(4000, 1000);  // no quicker: the earlier one stays
    receivePong(20000, -9000);
    receiveFrame();
    EXPECT_EQ(take().networkP95, 10);

    for (int i = 0; i < 7; ++i) receivePong(20000, 5000);
    receiveFrame();
    EXPECT_EQ(take().networkP95, 10);  // ten are kept: the good one is still among them
    receivePong(20000, 5000);          // now it has left, and so leads the one after it
    receiveFrame();
    EXPECT_EQ(take().networkP95, 11);
}

TEST_F(ViewerStatsTest, aPongFromTheFutureIsNonsense) {
    stats.recordPong({.viewerMicros = 2000, .serverMicros = 9000, .droppedFrames = 7}, 1999);
    receiveFrame();
    const auto snapshot = take();
    EXPECT_EQ(snapshot.networkP95, std::nullopt);
    EXPECT_NE(snapshot.overlay.find("dropped 0"), std::string::npos);
}

TEST_F(ViewerStatsTest, whatAPeerClaimsCannotOverflow) {
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    stats.recordPong({.viewerMicros = 0, .serverMicros = most, .droppedFrames = 1}, most / 2);
    stats.recordFrame({.capture = most, .submit = 0, .encoded = most / 2, .received = 1, .decoded = 2}, 3);
    EXPECT_EQ(take().frames, 1);
}

TEST_F(ViewerStatsTest, aRepeatSaysNothingAboutCaptureAndTotal) {
    receivePong(8000);
    receiveFrame(2048, true, true);
    const auto lines = linesOf(take().overlay);
    EXPECT_EQ(lines[0], "1440×900 H.264 · 1 fps · 0.0 Mbit/s");
    EXPECT_EQ(lines[1], "frame avg 2.0 KB · max 2 KB · key 1 · dropped 0 · resend 0");
    EXPECT_EQ(lines[4], "capture         –      –      –");
    EXPECT_EQ(lines[5], "encode        4.0    4.0    4.0");
    EXPECT_EQ(lines[6], "network      10.0   10.0   10.0");
    EXPECT_EQ(lines[9], "total ≈         –      –      –");
}

/// A user's locale, whether or not the machine has one installed.
struct CommaForPoint : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
};

TEST_F(ViewerStatsTest, aCommaOfTheUsersLocaleStaysOut) {
    // A toolkit sets the user's locale for the whole process.
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CommaForPoint));
    std::setlocale(LC_ALL, "de_DE.UTF-8");
    receiveFrame();
    const auto snapshot = take();
    std::locale::global(before);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(std::ranges::count(snapshot.csvRow, ','), std::ranges::count(ViewerStats::csvHeader, ','));
    EXPECT_NE(snapshot.overlay.find("frame avg 1.0 KB"), std::string::npos);
}

}  // namespace
}  // namespace velmora
