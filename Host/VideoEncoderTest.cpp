#include "Host/VideoEncoder.h"

#include <gtest/gtest.h>

#include "Testing/DesktopScene.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// Takes 4 ms of virtual time for each picture, during which other threads may ask for keyframes.
class SlowFactory final : public VideoCompressorFactory {
public:
    explicit SlowFactory(VirtualTime& time) : time_(time) {}
    Result<std::unique_ptr<VideoCompressor>> make(
        const VideoCompressor::Configuration& configuration) override {
        auto made = fakes.make(configuration);
        if (!made) return made.error();
        return std::unique_ptr<VideoCompressor>(new Slow(std::move(made).value(), *this));
    }
    FakeVideoCompressorFactory fakes;
    std::function<void()> meanwhile;

private:
    struct Slow final : VideoCompressor {
        Slow(std::unique_ptr<VideoCompressor> inner, SlowFactory& owner)
            : inner(std::move(inner)), owner(owner) {}
        Result<CompressedPicture> encode(const Picture& picture, const Options& options) override {
            owner.time_.advanceBy(std::chrono::milliseconds(4));
            if (owner.meanwhile) owner.meanwhile();
            return inner->encode(picture, options);
        }
        bool setRate(std::int64_t bits, std::chrono::milliseconds burst) override {
            return inner->setRate(bits, burst);
        }
        VideoCodec codec() const override { return inner->codec(); }
        bool isHardware() const override { return inner->isHardware(); }
        bool usesLowLatencyRateControl() const override { return inner->usesLowLatencyRateControl(); }
        std::string_view name() const override { return inner->name(); }
        std::unique_ptr<VideoCompressor> inner;
        SlowFactory& owner;
    };
    VirtualTime& time_;
};

class VideoEncoderTest : public testing::Test {
protected:
    void start(VideoCodec codec = VideoCodec::h264) {
        auto made = VideoEncoder::make(factory, queue, {.width = 128, .height = 64, .codec = codec},
                                       [this](EncodedFrame frame) { frames.push_back(std::move(frame)); });
        ASSERT_TRUE(made.ok());
        encoder = std::move(made).value();
    }
    FakeVideoCompressor& compressor() { return *factory.fakes.newest; }
    void encodeNext() {
        const auto damage = scene.step();
        encoder->encode(*scene.view(), 777, {.damage = damage});
    }
    std::vector<bool> keyframes() const {
        std::vector<bool> all;
        for (const auto& frame : frames) all.push_back(frame.isKeyframe);
        return all;
    }

    VirtualTime time;
    VirtualQueue queue{time, "velmora.capture"};
    SlowFactory factory{time};
    DesktopScene scene{{128, 64}, DesktopScene::Kind::typing};
    std::vector<EncodedFrame> frames;
    std::unique_ptr<VideoEncoder> encoder;
};

TEST_F(VideoEncoderTest, beginsWithAKeyframeAndStampsEachPicture) {
    start();
    const auto before = queue.nowMicros();
    encodeNext();
    encodeNext();
    ASSERT_EQ(keyframes(), (std::vector{true, false}));
    EXPECT_TRUE(frames[0].parameterSets);
    EXPECT_FALSE(frames[1].parameterSets);
    EXPECT_EQ(frames[0].captureMicros, 777U);
    EXPECT_EQ(frames[0].submitMicros, before);
    EXPECT_EQ(frames[0].encodedMicros, before + 4000);
}

TEST_F(VideoEncoderTest, twoRequestsBetweenPicturesCostOneKeyframe) {
    start();
    encodeNext();
    encoder->requestKeyframe();
    encoder->requestKeyframe();
    for (int i = 0; i < 3; ++i) encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, true, false, false}));
}

TEST_F(VideoEncoderTest, aRequestWhileAKeyframeIsMadeGetsItsOwn) {
    start();
    factory.meanwhile = [this] { encoder->requestKeyframe(); };
    encodeNext();
    factory.meanwhile = nullptr;
    encodeNext();
    encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, true, false}));
}

TEST_F(VideoEncoderTest, aFailedPictureLosesNeitherRequestNorDamage) {
    start();
    encodeNext();
    encoder->requestKeyframe();
    compressor().failNext = 1;
    encodeNext();
    EXPECT_TRUE(encoder->keyframeIsDue());
    encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, true}));

    compressor().failNext = 1;
    encodeNext();
    encoder->encode(*scene.view(), 778, {.refine = true});
    EXPECT_EQ(compressor().calls.back().damage, (std::vector<PixelRect>{{0, 0, 128, 64}}));
    encodeNext();
    EXPECT_EQ(compressor().calls.back().damage.size(), 2U) << "once is enough";
}

TEST_F(VideoEncoderTest, aNewRateKeepsTheEncoderIfItCan) {
    start();
    encodeNext();
    encoder->setBitrate(5'000'000, 500ms);
    EXPECT_EQ(compressor().configuration().bitsPerSecond, 5'000'000);
    encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, false}));
    EXPECT_EQ(factory.fakes.made, 1);
}

TEST_F(VideoEncoderTest, aNewRateNeedsAnotherEncoderIfItCannot) {
    factory.fakes.behaviour.changesBitRate = false;
    start();
    encodeNext();
    encoder->setBitrate(5'000'000, 500ms);
    EXPECT_EQ(compressor().configuration().bitsPerSecond, 5'000'000);
    encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, true}));

    factory.fakes.failure = Failure{"none left", -5};
    encoder->setBitrate(6'000'000, 500ms);
    encodeNext();
    EXPECT_EQ(keyframes(), (std::vector{true, true, false})) << "the old one goes on";
    factory.fakes.failure.reset();
    encoder->setBitrate(6'000'000, 500ms);
    EXPECT_EQ(compressor().configuration().bitsPerSecond, 6'000'000)
        << "tried again, though asked for before";
}

TEST_F(VideoEncoderTest, saysWhatIsReallyInUse) {
    factory.fakes.behaviour = {.usesLowLatencyRateControl = false, .codec = VideoCodec::h264};
    start(VideoCodec::hevc);
    EXPECT_EQ(encoder->codec(), VideoCodec::h264);
    EXPECT_FALSE(encoder->usesLowLatencyRateControl());

    factory.fakes.failure = Failure{"no device", -12908};
    const auto failed = VideoEncoder::make(factory, queue, {.width = 128, .height = 64}, nullptr);
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().status, -12908);
}

TEST_F(VideoEncoderTest, nothingComesOutAfterRetiring) {
    start();
    encodeNext();
    encoder->retire();
    encodeNext();
    encoder->setBitrate(1'000'000, 500ms);
    EXPECT_EQ(frames.size(), 1U);
}

}  // namespace
}  // namespace velmora
