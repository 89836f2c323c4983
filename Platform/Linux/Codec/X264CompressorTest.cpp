#include "Platform/Linux/Codec/X264Compressor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "Testing/DesktopScene.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

using std::chrono::milliseconds;

constexpr PixelSize size{320, 192};
constexpr PixelRect everything{0, 0, size.width, size.height};

SharedPicture noise(unsigned seed) {
    auto picture = std::make_shared<PictureBuffer>(size);
    std::mt19937 random(seed);
    std::generate(picture->y, picture->u, [&] { return static_cast<std::uint8_t>(90 + random() % 64); });
    return PictureBuffer::view(picture);
}

class X264CompressorTest : public testing::Test {
protected:
    void open(std::int64_t bitsPerSecond) {
        auto made =
            X264Compressor::open({.size = size, .bitsPerSecond = bitsPerSecond, .framesPerSecond = 60});
        ASSERT_TRUE(made.ok());
        compressor = std::move(made).value();
    }
    CompressedPicture encode(const SharedPicture& picture, VideoCompressor::Options options) {
        auto compressed = compressor->encode(*picture, options);
        EXPECT_TRUE(compressed.ok());
        return std::move(compressed).value();
    }
    double bitsOf(int pictures, milliseconds apart) {
        std::size_t bytes = 0;
        for (int i = 0; i < pictures; ++i) {
            bytes += encode(noise(++seed), {.damage = {&everything, 1}, .sinceLast = apart}).data.size();
        }
        return static_cast<double>(bytes) * 8;
    }

    std::unique_ptr<VideoCompressor> compressor;
    unsigned seed = 0;
};

TEST_F(X264CompressorTest, countsItsRateByTheClockAndNotByThePicture) {
    constexpr double rate = 2'000'000;
    open(static_cast<std::int64_t>(rate));
    bitsOf(60, milliseconds(17));  // empties the bucket
    EXPECT_NEAR(bitsOf(60, milliseconds(17)), rate, 0.25 * rate);
    EXPECT_NEAR(bitsOf(50, milliseconds(40)), 2 * rate, 0.5 * rate) << "25 a second";
    EXPECT_LT(bitsOf(60, milliseconds(17)), 1.3 * rate) << "and back";
}

TEST_F(X264CompressorTest, aPauseFillsTheBucketAgainButNotOverItsBrim) {
    constexpr double rate = 2'000'000;
    open(static_cast<std::int64_t>(rate));
    bitsOf(60, milliseconds(17));
    const double steady = bitsOf(30, milliseconds(17));
    bitsOf(1, milliseconds(60'000));
    const double afterPause = bitsOf(30, milliseconds(17));
    EXPECT_GT(afterPause, 1.4 * steady);
    EXPECT_LT(afterPause, steady + 0.6 * rate);
}

TEST_F(X264CompressorTest, leavesBlocksOutsideTheDamageAlone) {
    open(100'000'000);
    const auto before = noise(1), after = noise(2);
    encode(before, {});
    encode(before, {.refine = true});
    const PixelRect corner{0, 0, 16, 16};
    const auto cornerOnly = encode(after, {.damage = {&corner, 1}});
    const auto whole = encode(noise(3), {.damage = {&everything, 1}});
    EXPECT_LT(cornerOnly.data.size(), whole.data.size() / 50)
        << "the search went where nothing is said to have changed";
}

TEST_F(X264CompressorTest, tellsHowCoarseThePictureStands) {
    open(20'000'000);
    DesktopScene scene(size, DesktopScene::Kind::typing);
    encode(scene.view(), {});
    const auto sharp = encode(scene.view(), {.refine = true});
    EXPECT_LE(*sharp.meanQuantizer, 16) << "the scheduler of repeats stops there";
    compressor->setRate(300'000, 500ms);
    bitsOf(20, milliseconds(17));
    const auto coarse = encode(noise(0), {.damage = {&everything, 1}});
    EXPECT_GT(*coarse.meanQuantizer, 25);
    compressor->setRate(20'000'000, 500ms);
    const PixelRect corner{0, 0, 16, 16};
    EXPECT_GT(*encode(noise(0), {.damage = {&corner, 1}}).meanQuantizer, 25)
        << "one fine block is no sharp picture";
    for (int i = 0; i < 60; ++i) encode(noise(0), {.refine = true, .sinceLast = milliseconds(40)});
    EXPECT_LE(*encode(noise(0), {.refine = true}).meanQuantizer, 16);
}

}  // namespace
}  // namespace velmora
