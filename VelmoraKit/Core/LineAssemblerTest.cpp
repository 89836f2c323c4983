#include "VelmoraKit/Core/LineAssembler.h"

#include <gtest/gtest.h>

#include <vector>

namespace velmora {
namespace {

using Lines = std::vector<std::string>;

/// What comes of `text` when it arrives in pieces of `step` bytes.
Lines linesOf(std::string_view text, std::size_t step, std::size_t longestLine = 100) {
    Lines lines;
    LineAssembler assembler(longestLine);
    assembler.onLine = [&](std::string line) { lines.push_back(std::move(line)); };
    for (; !text.empty(); text.remove_prefix(std::min(step, text.size())))
        assembler.take(text.substr(0, step));
    assembler.finish();
    return lines;
}

TEST(LineAssemblerTest, linesAreTheSameInWhateverPiecesTheyCome) {
    for (std::size_t step = 1; step < 20; ++step) {
        EXPECT_EQ(linesOf("one\r\n\ntwo\rthree\nfour", step), (Lines{"one", "", "two\rthree", "four"}))
            << step;
        EXPECT_EQ(linesOf("a\n", step), (Lines{"a"})) << step;
    }
    EXPECT_EQ(linesOf("", 1), Lines{});
}

TEST(LineAssemblerTest, aLongLineIsCutAndTheNextOneIsWhole) {
    for (std::size_t step = 1; step < 12; ++step) {
        EXPECT_EQ(linesOf("1234567\nabc\n1234\n", step, 4), (Lines{"1234", "abc", "1234"})) << step;
    }
}

}  // namespace
}  // namespace velmora
