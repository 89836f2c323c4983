#include "Platform/Linux/Codec/VideoCodecFactories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Platform/Linux/Codec/BlockQuality.h"
#include "Testing/DesktopScene.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using testing::HasSubstr;

std::string logged() {
    const std::string text = DebugLog::shared().plainText();
    DebugLog::shared().clear();
    return text;
}

TEST(VideoCodecFactoriesTest, hevcWithoutHardwareIsH264) {
    const auto factory = makeVideoCompressorFactory({.devices = {}});
    const auto made = factory->make({.codec = VideoCodec::hevc, .size = {64, 48}});
    ASSERT_TRUE(made.ok());
    EXPECT_EQ(made.value()->codec(), VideoCodec::h264);
    EXPECT_FALSE(made.value()->isHardware());

    const auto patient = makeVideoCompressorFactory({.devices = {}, .allowSoftwareHevc = true});
    const auto slow = patient->make({.codec = VideoCodec::hevc, .size = {64, 48}});
    ASSERT_TRUE(slow.ok());
    EXPECT_EQ(slow.value()->codec(), VideoCodec::hevc);
}

TEST(VideoCodecFactoriesTest, devicesThatDoNotWorkFallBackToSoftware) {
    logged();
    const VideoDevices devices{.renderNodes = {"/dev/dri/renderD999"}, .hasNvidia = true};
    const auto compressors = makeVideoCompressorFactory({.devices = devices});
    auto made = compressors->make({.size = {64, 48}});
    ASSERT_TRUE(made.ok());
    EXPECT_EQ(made.value()->name(), "libx264");
    EXPECT_THAT(logged(), HasSubstr("renderD999"));
    ASSERT_TRUE(compressors->make({.size = {64, 48}}).ok());
    EXPECT_EQ(logged(), "") << "the same reasons again";

    DesktopScene scene({64, 48}, DesktopScene::Kind::still);
    const auto key = made.value()->encode(*scene.view(), {});
    ASSERT_TRUE(key.ok());
    const auto decompressor =
        makeVideoDecompressorFactory(devices)->make({.parameterSets = *key->parameterSets});
    ASSERT_TRUE(decompressor.ok());
    EXPECT_FALSE(decompressor.value()->isHardware());
    EXPECT_TRUE(decompressor.value()->decode(key->data).ok());
}

TEST(VideoCodecFactoriesTest, takesThreeThousandEightHundredAndFortyPixels) {
    DesktopScene scene({3840, 2160}, DesktopScene::Kind::still);
    const auto made = makeVideoCompressorFactory({.devices = {}})->make({.size = {3840, 2160}});
    ASSERT_TRUE(made.ok());
    const auto key = made.value()->encode(*scene.view(), {});
    ASSERT_TRUE(key.ok());
    const auto decompressor = makeVideoDecompressorFactory({})->make({.parameterSets = *key->parameterSets});
    ASSERT_TRUE(decompressor.ok());
    const auto shown = decompressor.value()->decode(key->data);
    ASSERT_TRUE(shown.ok());
    EXPECT_EQ(shown.value()->size, (PixelSize{3840, 2160}));
}

TEST(VideoDevicesTest, findsRenderNodesInOrder) {
    const ScratchFolder folder;
    std::filesystem::create_directories(folder.path() / "dri");
    for (const char* name : {"renderD129", "card0", "renderD128"})
        std::ofstream(folder.path() / "dri" / name);
    const auto found = VideoDevices::find(folder.path());
    EXPECT_EQ(found.renderNodes,
              (std::vector<std::string>{folder.path() / "dri/renderD128", folder.path() / "dri/renderD129"}));
    EXPECT_FALSE(found.hasNvidia);
    EXPECT_TRUE(VideoDevices::find("/nowhere").renderNodes.empty());
}

TEST(BlockQualityTest, keepsWhatEachBlockWasLastCodedWith) {
    BlockQuality quality({64, 32});  // 4x2 blocks
    quality.record(40, true);
    EXPECT_EQ(quality.mean(), 40);
    const PixelRect corner{15, 15, 2, 2}, outside{-100, -100, 50, 50}, across{60, 20, 500, 500};
    quality.markDamage({{corner}}, 1);
    EXPECT_EQ(std::vector(quality.marks(), quality.marks() + 8),
              (std::vector<std::uint8_t>{0, 0, 1, 1, 0, 0, 1, 1}));
    quality.markDamage({{outside}}, 1);
    EXPECT_EQ(std::count(quality.marks(), quality.marks() + 8, 0), 0);
    quality.markDamage({{across}}, 1);
    EXPECT_EQ(std::count(quality.marks(), quality.marks() + 8, 0), 1);
    quality.record(20, false);
    EXPECT_EQ(quality.mean(), 20) << "a finer picture improves the rest too";
    quality.record(36, false);
    EXPECT_EQ(quality.mean(), 22) << "a coarser one only what changed";
}

}  // namespace
}  // namespace velmora
