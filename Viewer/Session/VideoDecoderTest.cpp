#include "Viewer/Session/VideoDecoder.h"

#include <gtest/gtest.h>

#include "Testing/DesktopScene.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ImageCompare.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/VsyncTracker.h"

namespace velmora {
namespace {

class VideoDecoderTest : public testing::Test {
protected:
    CompressedPicture encodeNext(bool keyframe = false) {
        const auto damage = scene.step();
        auto compressed = compressor.encode(*scene.view(), {.forceKeyframe = keyframe, .damage = damage});
        EXPECT_TRUE(compressed.ok());
        return std::move(compressed).value();
    }
    void announce(const CompressedPicture& keyframe, VideoCodec codec = VideoCodec::h264) {
        const StreamConfig config{.codec = codec, .parameterSets = *keyframe.parameterSets};
        const auto format = VideoDecoding::formatDescription(config, factory);
        ASSERT_TRUE(format);
        decoder.setFormat(*format);
    }
    bool decode(const CompressedPicture& compressed) {
        const auto sample = VideoDecoding::sampleBuffer(compressed.data, {});
        return sample && decoder.decode(*sample, [this](SharedPicture picture, std::uint64_t micros) {
            shown = std::move(picture);
            decodedMicros = micros;
        });
    }

    VirtualTime time;
    VirtualQueue queue{time};
    DesktopScene scene{{128, 64}, DesktopScene::Kind::typing};
    FakeVideoCompressor compressor{{.size = {128, 64}}, {}};
    FakeVideoDecompressorFactory factory;
    VideoDecoder decoder{factory, queue};
    SharedPicture shown;
    std::uint64_t decodedMicros = 0;
};

TEST_F(VideoDecoderTest, decodesAndTellsTheMoment) {
    const auto key = encodeNext();
    EXPECT_FALSE(decode(key)) << "no format yet";
    announce(key);
    ASSERT_TRUE(decode(key));
    EXPECT_EQ(decodedMicros, queue.nowMicros());
    EXPECT_GT(ssimLuma(*shown, *scene.view()), 0.99);
    EXPECT_TRUE(decoder.isHardware());
}

TEST_F(VideoDecoderTest, theSameFormatKeepsTheSessionAndAnotherCodecDoesNot) {
    const auto key = encodeNext();
    announce(key);
    ASSERT_TRUE(decode(key));
    announce(key);
    EXPECT_TRUE(decode(encodeNext())) << "the session must not have lost its pictures";
    EXPECT_EQ(factory.made, 1);
    factory.isHardware = false;
    announce(key, VideoCodec::hevc);
    EXPECT_EQ(factory.made, 2);
    EXPECT_FALSE(decoder.isHardware());
}

TEST_F(VideoDecoderTest, aLostSessionCostsOnePictureAndIsMadeAgain) {
    const auto key = encodeNext();
    announce(key);
    ASSERT_TRUE(decode(key));
    factory.newest->failNext = Failure{"the device went away", VideoDecompressor::sessionInvalid};
    EXPECT_FALSE(decode(encodeNext()));
    EXPECT_TRUE(decode(encodeNext(true)));
    EXPECT_EQ(factory.made, 2);
}

TEST_F(VideoDecoderTest, anOrdinaryFailureKeepsTheSession) {
    const auto key = encodeNext();
    announce(key);
    ASSERT_TRUE(decode(key));
    encodeNext();  // lost on the way
    EXPECT_FALSE(decode(encodeNext()));
    EXPECT_TRUE(decode(encodeNext(true)));
    EXPECT_EQ(factory.made, 1);
}

TEST_F(VideoDecoderTest, triesAgainAtEachPictureWhileThereIsNoSession) {
    factory.failure = Failure{"no decoder"};
    const auto key = encodeNext();
    announce(key);
    EXPECT_FALSE(decode(key));
    factory.failure.reset();
    EXPECT_TRUE(decode(key));
    decoder.invalidate();
    EXPECT_TRUE(decode(key));
    EXPECT_EQ(factory.made, 2);
}

TEST_F(VideoDecoderTest, refusesStreamsWithoutUsableParameterSets) {
    EXPECT_FALSE(VideoDecoding::formatDescription({}, factory));
    EXPECT_FALSE(VideoDecoding::formatDescription({.parameterSets = {{'S', 0, 0, 0, 0}}}, factory));
    EXPECT_FALSE(VideoDecoding::sampleBuffer({}, {}));
}

TEST(VideoDecodingTest, picturesOfOneSizeShareTheirDisplayFormat) {
    const auto picture = [](PixelSize size) {
        return PictureBuffer::view(std::make_shared<PictureBuffer>(size));
    };
    std::shared_ptr<const DisplayFormat> format;
    const auto first = VideoDecoding::displaySample(picture({64, 48}), format);
    const auto second = VideoDecoding::displaySample(picture({64, 48}), format);
    const auto third = VideoDecoding::displaySample(picture({96, 48}), format);
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->format, second->format);
    EXPECT_NE(first->format, third->format);
    EXPECT_EQ(third->format->size, (PixelSize{96, 48}));
    EXPECT_FALSE(VideoDecoding::displaySample(nullptr, format));
}

TEST(VsyncTrackerTest, countsAPictureAtTheNextRefresh) {
    VsyncTracker tracker;
    EXPECT_EQ(tracker.displayedMicros(5'000'123), 5'000'123U) << "no beat known yet";
    tracker.tick(5.0, 5.015625);  // 64 a second: exact in binary
    EXPECT_EQ(tracker.displayedMicros(4'990'000), 5'000'000U) << "never earlier than a refresh that was seen";
    EXPECT_EQ(tracker.displayedMicros(5'000'001), 5'015'625U);
    EXPECT_EQ(tracker.displayedMicros(5'046'875), 5'046'875U);
    EXPECT_EQ(tracker.displayedMicros(5'046'876), 5'062'500U);
    tracker.tick(6.0, 6.0005);
    EXPECT_EQ(tracker.displayedMicros(6'000'001), 6'015'625U) << "a bad tick leaves the beat alone";
}

}  // namespace
}  // namespace velmora
