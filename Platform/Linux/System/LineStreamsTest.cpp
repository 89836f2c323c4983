#include "Platform/Linux/System/LineStreams.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <future>
#include <string_view>
#include <vector>

#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe(ends.data()), 0); }
    ~Pipe() {
        closeReader();
        closeWriter();
    }
    void closeReader() { closeEnd(0); }
    void closeWriter() { closeEnd(1); }
    void closeEnd(std::size_t which) {
        if (ends[which] >= 0) ::close(ends[which]);
        ends[which] = -1;
    }
    void put(std::string_view text) {
        EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string take(std::size_t count) {
        std::string text;
        std::array<char, 4096> buffer;
        while (text.size() < count) {
            const auto got = ::read(ends[0], buffer.data(), std::min(buffer.size(), count - text.size()));
            if (got <= 0) break;
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
        return text;
    }
    std::array<int, 2> ends{};
};

class LineStreamsTest : public testing::Test {
protected:
    LineStreamsTest() { std::signal(SIGPIPE, SIG_IGN); }
    /// The streams own and close their ends.
    LineStreams::Ends ends() { return {std::exchange(input.ends[0], -1), std::exchange(output.ends[1], -1)}; }

    Pipe input, output;
    ThreadQueue main{"main"};
};

TEST_F(LineStreamsTest, linesComeInOrderAndThenTheEnd) {
    LineStreams streams(ends());
    std::vector<std::string> lines;
    std::promise<void> ended;
    streams.read(
        main,
        [&](std::string line) {
            assertOn(main);
            lines.push_back(std::move(line));
        },
        [&] { ended.set_value(); });
    input.put("one\r\n\ntw");
    input.put("o\nthree");
    input.closeWriter();
    ASSERT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "two", "three"}));
}

TEST_F(LineStreamsTest, writingWaitsForNobody) {
    LineStreams streams(ends());
    const std::string large(1 << 20, 'x');  // more than a pipe holds
    streams.write(large);
    streams.write("last");
    EXPECT_FALSE(streams.flush(0ms));
    EXPECT_EQ(output.take(large.size() + 6), large + "\nlast\n");
    EXPECT_TRUE(streams.flush(10s));
}

TEST_F(LineStreamsTest, aReaderThatHasGoneIsNoFault) {
    LineStreams streams(ends());
    output.closeReader();
    for (int i = 0; i < 100; ++i) streams.write("nobody hears it");
    EXPECT_TRUE(streams.flush(10s));
}

TEST_F(LineStreamsTest, aBlockedReadHoldsUpNothingAndIsHeardOfNoMore) {
    bool told = false;
    main.runSync([&] {
        LineStreams streams(ends());
        streams.read(
            main, [&](const std::string&) { told = true; }, [&] { told = true; });
    });
    input.put("late\n");
    input.closeWriter();
    main.runSync([] {});
    EXPECT_FALSE(told);
}

}  // namespace
}  // namespace velmora
