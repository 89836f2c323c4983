#include "Host/VideoPipeline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Testing/FakeScreenCapture.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/ScriptedFlow.h"
#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Media/VideoPackets.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// Compresses like the fake, and claims the quality that the test wants.
class QualityFactory final : public VideoCompressorFactory {
public:
    Result<std::unique_ptr<VideoCompressor>> make(
        const VideoCompressor::Configuration& configuration) override {
        auto made = fakes.make(configuration);
        if (!made) return made.error();
        bitrates.push_back(configuration.bitsPerSecond);
        return std::unique_ptr<VideoCompressor>(new Claiming(std::move(made).value(), *this));
    }
    FakeVideoCompressorFactory fakes;
    std::optional<double> quantizer = 12;
    std::vector<std::int64_t> bitrates;  // every one that was set
    std::chrono::milliseconds lastBurst{0};

private:
    struct Claiming final : VideoCompressor {
        Claiming(std::unique_ptr<VideoCompressor> fake, QualityFactory& owner)
            : fake(std::move(fake)), owner(owner) {}
        Result<CompressedPicture> encode(const Picture& picture, const Options& options) override {
            auto compressed = fake->encode(picture, options);
            if (compressed) compressed->meanQuantizer = owner.quantizer;
            return compressed;
        }
        bool setRate(std::int64_t bits, std::chrono::milliseconds burst) override {
            owner.bitrates.push_back(bits);
            owner.lastBurst = burst;
            return fake->setRate(bits, burst);
        }
        VideoCodec codec() const override { return fake->codec(); }
        bool isHardware() const override { return fake->isHardware(); }
        bool usesLowLatencyRateControl() const override { return fake->usesLowLatencyRateControl(); }
        std::string_view name() const override { return fake->name(); }
        std::unique_ptr<VideoCompressor> fake;
        QualityFactory& owner;
    };
};

class VideoPipelineTest : public testing::Test {
protected:
    static constexpr DisplayId display = 7;
    static constexpr PixelSize size{64, 32};

    VideoPipelineTest() {
        screen.setDisplay(display, size);
        makePipeline(flow);
    }
    ~VideoPipelineTest() override { pipeline.reset(); }

    void makePipeline(const std::shared_ptr<ScriptedFlow>& over) {
        settings.codec = VideoCodec::h264;
        sender = std::make_shared<FrameSender>(connection, over, queue);
        pipeline = std::make_shared<VideoPipeline>(VideoPipeline::Services{.capture = queue,
                                                                           .captures = screen,
                                                                           .compressors = compressors,
                                                                           .connection = connection,
                                                                           .sender = sender},
                                                   settings);
    }
    /// Streams, with the first picture sent and closed.
    void startAndRest() {
        start();
        time.advanceBy(1s);
        stream->completeSend();  // the configuration: the stream is empty
        time.settle();
        forget();
    }
    void start() {
        ASSERT_TRUE(pipeline->replaceEncoder(size, false).ok());
        pipeline->startCapture(display, [this](const Status& status) { started = status.ok(); });
        time.settle();
        ASSERT_TRUE(started);
    }
    void paint() { screen.paint(display, {0, 0, 8, 8}, ++grey); }
    void forget() {
        flow->sent.clear();
        stream->sent.clear();
        begin = time.now();
    }
    FakeVideoCompressor& compressor() { return *compressors.fakes.newest; }

    struct Sent {
        std::uint32_t number;
        VideoFrame frame;
    };
    /// The frames handed to the flow so far, put together again.
    std::vector<Sent> frames() const {
        std::vector<Sent> all;
        for (const auto& [datagrams, tag] : flow->sent) {
            if (tag == 0) continue;
            Bytes record;
            for (const auto& datagram : datagrams) {
                record.insert(record.end(), datagram->begin() + VideoPackets::headerSize, datagram->end());
            }
            all.push_back({static_cast<std::uint32_t>(tag), VideoFrame::decode(record).value()});
        }
        return all;
    }
    std::size_t keyframes() const {
        const auto all = frames();
        return static_cast<std::size_t>(
            std::count_if(all.begin(), all.end(), [](const Sent& sent) { return sent.frame.isKeyframe; }));
    }
    std::vector<MessageType> messages() const {
        std::vector<MessageType> types;
        for (const Bytes& frame : stream->sent) types.push_back(*messageTypeOf(frame[0]));
        return types;
    }

    VirtualTime time;
    VirtualQueue queue{time, "velmora.capture"}, network{time, "velmora.quic"};
    FakeScreen screen;
    QualityFactory compressors;
    ServerSettings settings;
    std::shared_ptr<ScriptedStream> stream = std::make_shared<ScriptedStream>(network);
    std::shared_ptr<MessageConnection> connection = std::make_shared<MessageConnection>(stream, network);
    std::shared_ptr<ScriptedFlow> flow = std::make_shared<ScriptedFlow>();
    std::shared_ptr<FrameSender> sender;
    std::shared_ptr<VideoPipeline> pipeline;
    HostClock::time_point begin = time.now();
    bool started = false;
    std::uint8_t grey = 100;
};

TEST_F(VideoPipelineTest, theFirstPictureIsAKeyframeBehindItsConfiguration) {
    start();
    time.advanceBy(1ms);
    ASSERT_THAT(messages(), ElementsAre(MessageType::streamConfig));
    const auto config = StreamConfig::decode(ByteView(stream->sent[0]).subspan(5));
    ASSERT_TRUE(config.ok());
    EXPECT_EQ(config->codec, VideoCodec::h264);
    EXPECT_EQ(config->width, 64u);
    EXPECT_EQ(config->height, 32u);
    EXPECT_FALSE(config->isDynamic);
    EXPECT_FALSE(config->parameterSets.empty());
    const auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].number, 1u);
    EXPECT_TRUE(sent[0].frame.isKeyframe);
}

TEST_F(VideoPipelineTest, theConfigurationTellsTheCodecReallyUsedAndTheDynamicDisplay) {
    settings.codec = VideoCodec::hevc;
    compressors.fakes.behaviour.codec = VideoCodec::h264;
    ASSERT_EQ(pipeline->replaceEncoder(size, true)->codec, VideoCodec::h264);
    pipeline->startCapture(display, [](const Status&) {});
    time.advanceBy(1ms);
    const auto config = StreamConfig::decode(ByteView(stream->sent.at(0)).subspan(5));
    EXPECT_EQ(config->codec, VideoCodec::h264);
    EXPECT_TRUE(config->isDynamic);
}

TEST_F(VideoPipelineTest, anIdleScreenSendsTwoClosingRepeatsAndThenNothingAtAll) {
    startAndRest();
    paint();
    time.advanceBy(39ms);
    const auto change = frames();
    ASSERT_EQ(change.size(), 1u);
    time.advanceBy(200ms);
    const auto all = frames();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].frame.captureMicros, change[0].frame.captureMicros)
        << "a repeat tells whose picture it is";
    EXPECT_EQ(all[2].frame.captureMicros, change[0].frame.captureMicros);
    EXPECT_EQ(all[2].number, change[0].number + 2);
    time.advanceBy(1h);
    EXPECT_EQ(frames().size(), 3u);
    EXPECT_EQ(keyframes(), 0u);
}

TEST_F(VideoPipelineTest, aRestingScreenHasNoTimerRunning) {
    startAndRest();
    paint();
    time.advanceBy(3s);
    EXPECT_FALSE(time.advanceUntil([] { return false; }, 1h));
    int wakeUps = 0;
    time.advanceUntil([&] { return ++wakeUps > 3; }, 1h);
    EXPECT_LE(wakeUps, 2) << "once before and once after the hour";
}

TEST_F(VideoPipelineTest, aCoarsePictureIsSharpenedAndMovementStopsThat) {
    startAndRest();
    compressors.quantizer = 30;
    paint();
    time.advanceBy(70ms);
    EXPECT_TRUE(compressor().calls.back().refine);
    EXPECT_TRUE(compressor().calls.back().damage.empty());
    paint();
    time.advanceBy(39ms);
    EXPECT_FALSE(compressor().calls.back().refine);
    EXPECT_FALSE(compressor().calls.back().damage.empty());
}

TEST_F(VideoPipelineTest, aKeyframeRequestOnAStillScreenCostsExactlyOne) {
    startAndRest();
    pipeline->requestKeyframe();
    pipeline->requestKeyframe();
    time.advanceBy(16ms);
    EXPECT_THAT(frames(), IsEmpty());
    time.advanceBy(1ms);
    EXPECT_EQ(frames().size(), 1u);
    EXPECT_THAT(messages(), ElementsAre(MessageType::streamConfig));
    time.advanceBy(1h);
    EXPECT_EQ(keyframes(), 1u);
}

TEST_F(VideoPipelineTest, aChangeAnswersTheKeyframeRequestIfItComesFirst) {
    startAndRest();
    pipeline->requestKeyframe();
    time.advanceBy(5ms);
    paint();
    time.advanceBy(1h);
    EXPECT_EQ(keyframes(), 1u);
    EXPECT_TRUE(frames()[0].frame.isKeyframe);
}

TEST_F(VideoPipelineTest, aKeyframeRefusedByBackPressureComesWhenTheFlowHasDrained) {
    startAndRest();
    flow->pending = 3'000'001;
    pipeline->requestKeyframe();
    time.advanceBy(500ms);
    EXPECT_THAT(frames(), IsEmpty());
    flow->pending = 0;
    pipeline->handleDrained();
    time.settle();
    EXPECT_EQ(keyframes(), 1u);
    EXPECT_EQ(sender->takeDroppedFrames(), 0u) << "a repeat is no captured frame";
}

TEST_F(VideoPipelineTest, aLostKeyframeIsReplacedUnlessTheViewerHadItMended) {
    startAndRest();
    pipeline->requestKeyframe();
    time.advanceBy(20ms);
    const auto keyframe = frames().at(0).number;
    pipeline->handleLost(keyframe);
    pipeline->handleMended(keyframe);
    time.advanceBy(1s);
    EXPECT_EQ(keyframes(), 1u);
    pipeline->handleLost(keyframe);
    time.advanceBy(249ms);
    EXPECT_EQ(keyframes(), 1u);
    time.advanceBy(1ms);
    EXPECT_EQ(keyframes(), 2u);
}

TEST_F(VideoPipelineTest, tooManyWaitingBytesDropAndTheLastChangeIsTakenOnceTheyHaveLeft) {
    startAndRest();
    flow->pending = 3'000'000;
    paint();
    time.advanceBy(30ms);
    EXPECT_EQ(frames().size(), 1u) << "the limit is inclusive";
    flow->pending = 3'000'001;
    paint();
    time.advanceBy(300ms);
    EXPECT_EQ(frames().size(), 1u);
    EXPECT_EQ(sender->takeDroppedFrames(), 1u);
    flow->pending = 0;
    pipeline->handleDrained();
    time.advanceBy(1ms);
    EXPECT_EQ(frames().size(), 2u);
}

TEST_F(VideoPipelineTest, waitingBytesThatAreOldPutAPictureOffWithoutADrop) {
    startAndRest();
    flow->age = 26ms;
    paint();
    time.advanceBy(100ms);
    EXPECT_THAT(frames(), IsEmpty());
    EXPECT_EQ(sender->takeDroppedFrames(), 0u);
    flow->age = 25ms;  // nobody says so: newer bytes are at the head of the queue now
    time.advanceBy(5ms);
    EXPECT_EQ(frames().size(), 1u);
}

TEST_F(VideoPipelineTest, picturesOfASizeLeftBehindDisappear) {
    startAndRest();
    ASSERT_TRUE(pipeline->replaceEncoder({32, 16}, false).ok());
    paint();
    time.advanceBy(100ms);
    EXPECT_THAT(frames(), IsEmpty());
    EXPECT_EQ(sender->takeDroppedFrames(), 0u);
    pipeline->updateCapture(display, {32, 16}, [](const Status&) {});
    time.advanceBy(5ms);
    ASSERT_EQ(frames().size(), 1u) << "the first whole picture of the new size";
    EXPECT_TRUE(frames()[0].frame.isKeyframe);
}

TEST_F(VideoPipelineTest, aNewEncoderGetsAWholePictureAtOnceOnAStillScreen) {
    startAndRest();
    ASSERT_TRUE(pipeline->replaceEncoder(size, false).ok());
    time.advanceBy(20ms);
    EXPECT_EQ(keyframes(), 1u);
}

TEST_F(VideoPipelineTest, anEncoderThatCannotBeMadeLeavesTheOldOne) {
    startAndRest();
    compressors.fakes.failure = Failure{"no encoder", 5};
    const auto made = pipeline->replaceEncoder({32, 16}, false);
    ASSERT_FALSE(made.ok());
    EXPECT_EQ(made.error(), (Failure{"no encoder", 5}));
    paint();
    time.advanceBy(20ms);
    EXPECT_EQ(frames().size(), 1u);
}

TEST_F(VideoPipelineTest, hintsMoveTheRateBetweenNothingAndTheSetting) {
    startAndRest();
    for (const std::int64_t hint : {8, 0, 25, 8, -3}) pipeline->limitRateTo(hint);
    EXPECT_THAT(compressors.bitrates, ElementsAre(20'000'000, 8'000'000, 20'000'000, 8'000'000, 20'000'000));
    pipeline->limitRateTo(8);
    EXPECT_EQ(pipeline->replaceEncoder(size, false)->mbps, 8) << "later encoders use the same rule";
    EXPECT_EQ(compressors.bitrates.back(), 8'000'000);
}

TEST_F(VideoPipelineTest, aLatePathLowersTheRateWhilePicturesMove) {
    startAndRest();
    flow->path = {.smoothedRtt = 20ms, .minRtt = 20ms, .latestRtt = 20ms};
    for (int frame = 0; frame < 60; ++frame) {
        paint();
        time.advanceBy(17ms);
        flow->path.datagramsSent += 10;
        flow->path.datagramsAcked += 10;
        flow->path.bytesSent += 10'000;
        flow->path.latestRtt = flow->path.smoothedRtt = frame < 20 ? 20ms : 90ms;
    }
    EXPECT_LT(compressors.bitrates.back(), 15'000'000);
    EXPECT_LE(compressors.lastBurst, 100ms) << "what comes behind a large picture would be late";
}

TEST_F(VideoPipelineTest, onALossyPathEveryFrameGoesTwiceAtHalfTheRate) {
    startAndRest();
    flow->path = {.smoothedRtt = 40ms, .minRtt = 40ms, .latestRtt = 40ms};
    for (int frame = 0; frame < 30; ++frame) {
        paint();
        time.advanceBy(17ms);
        flow->path.datagramsSent += 30;
        flow->path.datagramsAcked += 29;
        flow->path.datagramsLost += 1;
        flow->path.bytesSent += 30'000;
    }
    EXPECT_EQ(compressors.bitrates.back(), 10'000'000);
    forget();
    paint();
    time.advanceBy(1ms);
    ASSERT_EQ(flow->sent.size(), 1u);
    time.advanceBy(4ms);
    EXPECT_EQ(flow->sent.size(), 1u) << "apart, so that one burst of loss does not take both";
    time.advanceBy(2ms);
    ASSERT_EQ(flow->sent.size(), 2u);
    EXPECT_EQ(flow->sent[1].datagrams, flow->sent[0].datagrams);
}

TEST_F(VideoPipelineTest, withoutAFlowPicturesAreMessages) {
    makePipeline(nullptr);
    start();
    time.advanceBy(1ms);
    EXPECT_THAT(messages(), ElementsAre(MessageType::streamConfig, MessageType::videoFrame));
}

TEST_F(VideoPipelineTest, aCaptureThatEndsByItselfIsToldAndRepeatedNoMore) {
    std::string reason;
    pipeline->onStopped = [&](const Failure& failure) { reason = failure.text; };
    start();
    time.advanceBy(1ms);
    screen.removeDisplay(display);
    forget();
    time.advanceBy(1s);
    EXPECT_EQ(reason, "the display is gone");
    EXPECT_THAT(frames(), IsEmpty());
}

TEST_F(VideoPipelineTest, retiringEndsTheCaptureFirstAndNothingFollows) {
    for (const auto running : {0ms, 1ms, 45ms, 1000ms}) {
        makePipeline(flow);
        ASSERT_TRUE(pipeline->replaceEncoder(size, false).ok());
        pipeline->startCapture(display, [](const Status&) {});
        time.advanceBy(running);
        bool ended = false;
        pipeline->retire([&] { ended = true; });
        forget();
        paint();
        pipeline->requestKeyframe();
        pipeline->limitRateTo(3);
        time.advanceBy(1s);
        EXPECT_TRUE(ended);
        EXPECT_THAT(screen.captures(), IsEmpty());
        EXPECT_THAT(flow->sent, IsEmpty()) << running.count();
    }
}

TEST_F(VideoPipelineTest, anEncoderThatFailsOnARepeatIsNotAskedInALoop) {
    startAndRest();
    compressor().failNext = 1'000'000;
    const auto calls = compressor().calls.size();
    pipeline->requestKeyframe();
    time.advanceBy(10s);
    EXPECT_LT(compressor().calls.size() - calls, 100u);
    compressor().failNext = 0;
    time.advanceBy(1s);
    EXPECT_EQ(keyframes(), 1u);
}

}  // namespace
}  // namespace velmora
