#include "Viewer/Session/ViewerMediaPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Testing/FakeVideoCompressor.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScriptedStream.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

class RecordingRenderer final : public VideoRenderer {
public:
    bool hasFailed() const override { return failed; }
    bool requiresFlush() const override { return wantsFlush; }
    void flush() override {
        ++flushes;
        failed = wantsFlush = false;
    }
    void enqueue(const DisplaySample& sample) override { shown.push_back(sample.picture); }

    bool failed = false, wantsFlush = false;
    int flushes = 0;
    std::vector<SharedPicture> shown;
};

class ViewerMediaPathTest : public testing::Test {
protected:
    ViewerMediaPathTest() {
        DebugLog::shared().clear();
        media.sendThrough(connection);
        media.onStream = [this](const ViewerMediaPath::StreamFormat& format) { formats.push_back(format); };
        media.onDecodedFrame = [this](const DecodedFrame& frame) { changes.push_back(frame.isChange); };
        media.onTextFocus = [this](bool focused) { focus.push_back(focused); };
        useEncoder({64, 48});
    }

    /// The host's encoder; its first picture is a keyframe.
    void useEncoder(PixelSize size, VideoCodec codec = VideoCodec::h264) {
        picture = std::make_shared<PictureBuffer>(size);
        compressor = std::make_unique<FakeVideoCompressor>(
            VideoCompressor::Configuration{.codec = codec, .size = size}, FakeVideoCompressor::Behaviour{});
        FakeVideoCompressor forSets({.codec = codec, .size = size}, {});
        config = {.codec = codec,
                  .width = static_cast<std::uint32_t>(size.width),
                  .height = static_cast<std::uint32_t>(size.height),
                  .parameterSets =
                      *forSets.encode(*PictureBuffer::view(picture), {.forceKeyframe = true})->parameterSets};
    }
    void receiveConfig() { media.handle(MessageType::streamConfig, config.encode()); }
    struct Frame {
        bool keyframe = false;
        std::uint64_t capture = 0;  // 0: later than all before
    };
    VideoFrame encoded(const Frame& frame) {
        const PixelRect all{0, 0, picture->size.width, picture->size.height};
        const auto compressed = compressor->encode(*PictureBuffer::view(picture),
                                                   {.forceKeyframe = frame.keyframe, .damage = {&all, 1}});
        return {.isKeyframe = frame.keyframe,
                .captureMicros = frame.capture ? frame.capture : ++lastCapture,
                .data = compressed->data};
    }
    void receive(const Frame& frame) { media.handle(MessageType::videoFrame, encoded(frame).encode()); }
    void receiveKeyframe() { receive({.keyframe = true}); }
    void startShowing() {
        receiveConfig();
        receiveKeyframe();
        ASSERT_EQ(changes.size(), 1u);
    }
    int requests() const { return countOf(MessageType::requestKeyframe); }
    int countOf(MessageType type) const {
        int count = 0;
        for (const Bytes& message : stream->sent) count += message.front() == byteOf(type) ? 1 : 0;
        return count;
    }
    static std::string lastLine() {
        const auto entries = DebugLog::shared().entries();
        return entries.empty() ? "" : entries.back().text;
    }

    VirtualTime time;
    VirtualQueue client{time, "velmora.quic.client"};
    std::shared_ptr<ScriptedStream> stream = std::make_shared<ScriptedStream>(client);
    std::shared_ptr<MessageConnection> connection = std::make_shared<MessageConnection>(stream, client);
    FakeVideoDecompressorFactory decompressors;
    RecordingRenderer renderer;
    ViewerMediaPath media{"Desk", client, decompressors, &renderer, nullptr};

    std::shared_ptr<PictureBuffer> picture;
    std::unique_ptr<FakeVideoCompressor> compressor;
    StreamConfig config;
    std::uint64_t lastCapture = 1000;

    std::vector<ViewerMediaPath::StreamFormat> formats;
    std::vector<bool> changes;  // one per decoded picture
    std::vector<bool> focus;
};

// Waiting for a keyframe

TEST_F(ViewerMediaPathTest, nothingIsShownBeforeAKeyframe) {
    receiveConfig();
    const VideoFrame first = encoded({.keyframe = true});  // lost on the way
    receive({});
    receive({});
    EXPECT_TRUE(renderer.shown.empty());
    EXPECT_EQ(requests(), 0);  // the host's own first keyframe is on its way
    media.handle(MessageType::videoFrame, first.encode());
    EXPECT_EQ(renderer.shown.size(), 1u);
    EXPECT_EQ(lastLine(),
              "Keyframe received (" + std::to_string(first.encode().size() / 1024) + " KB); showing video");
    EXPECT_EQ(media.latestPicture(), renderer.shown.back());
}

TEST_F(ViewerMediaPathTest, aFrameBeforeItsConfigAsksForAKeyframe) {
    receiveKeyframe();
    EXPECT_EQ(requests(), 1);
    EXPECT_TRUE(renderer.shown.empty());
    startShowing();
}

TEST_F(ViewerMediaPathTest, aGapStopsThePictureUntilAKeyframe) {
    startShowing();
    int lost = 0;
    media.onLostFrame = [&] { ++lost; };
    media.handleGap();
    EXPECT_EQ(lastLine(), "Video packets didn't arrive even after asking again; asking for a keyframe");
    receive({});
    EXPECT_EQ(changes.size(), 1u);
    EXPECT_EQ(requests(), 1);
    receiveKeyframe();
    receive({});
    EXPECT_EQ(changes.size(), 3u);

    time.advanceBy(500ms);  // not yet more than that
    media.handleGap();
    EXPECT_EQ(requests(), 1);
    time.advanceBy(1ms);
    media.handleGap();
    EXPECT_EQ(requests(), 2);
    EXPECT_EQ(lost, 3);
}

TEST_F(ViewerMediaPathTest, aDecodeFailureStopsThePictureToo) {
    startShowing();
    decompressors.newest->failNext = Failure{"damaged"};
    receive({});
    EXPECT_EQ(lastLine(), "⚠︎ Decode failed; asking for a keyframe");
    EXPECT_EQ(requests(), 1);
    receive({});
    EXPECT_EQ(changes.size(), 1u);
    receiveKeyframe();
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, aLostDecoderIsMadeAnew) {
    startShowing();
    decompressors.newest->failNext = Failure{"gone", VideoDecompressor::sessionInvalid};
    receive({});
    EXPECT_EQ(decompressors.made, 1);
    receiveKeyframe();
    EXPECT_EQ(decompressors.made, 2);
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, aRendererInTroubleIsFlushedAndWaits) {
    startShowing();
    renderer.wantsFlush = true;
    receive({});
    EXPECT_EQ(renderer.flushes, 1);
    EXPECT_EQ(requests(), 1);
    EXPECT_EQ(changes.size(), 1u);
    renderer.failed = true;
    receiveKeyframe();  // flushed, and it is the keyframe that is needed
    EXPECT_EQ(renderer.flushes, 2);
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, requestsOfAllCausesShareOneLimit) {
    startShowing();
    media.handleGap();
    decompressors.newest->failNext = Failure{"damaged"};
    receiveKeyframe();
    renderer.failed = true;
    receive({});
    EXPECT_EQ(requests(), 1);
}

// The stream

TEST_F(ViewerMediaPathTest, aConfigTellsWhetherTheStreamHasChanged) {
    receiveConfig();
    EXPECT_EQ(lastLine(), "Stream: H.264 64×48 px, fixed server display, hardware decode");
    receiveConfig();
    config.isDynamic = true;
    receiveConfig();
    decompressors.isHardware = false;
    useEncoder({80, 48}, VideoCodec::hevc);
    receiveConfig();
    EXPECT_EQ(lastLine(), "Stream: HEVC 80×48 px, fixed server display, ⚠︎ software decode");
    std::vector<bool> changed;
    for (const auto& format : formats) changed.push_back(format.hasChanged);
    EXPECT_THAT(changed, ElementsAre(true, false, true, true));
}

TEST_F(ViewerMediaPathTest, aRepeatedConfigDoesNotInterrupt) {
    startShowing();
    receiveConfig();
    receive({});
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, aConfigThatDescribesNoStreamChangesNothing) {
    startShowing();
    StreamConfig nonsense = config;
    nonsense.parameterSets.clear();
    media.handle(MessageType::streamConfig, nonsense.encode());
    nonsense.parameterSets = {bytesOf("?")};
    media.handle(MessageType::streamConfig, nonsense.encode());
    EXPECT_EQ(formats.size(), 1u);
    receive({});
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, aRepeatReplacesThePictureButIsNoChange) {
    startShowing();
    receive({.capture = 5000});
    const auto before = media.latestPicture();
    receive({.capture = 5000});
    receive({.keyframe = true, .capture = 5000});
    EXPECT_THAT(changes, ElementsAre(true, true, false, false));
    EXPECT_NE(media.latestPicture(), before);
    EXPECT_EQ(renderer.shown.size(), 4u);

    const auto snapshot = media.stats().take({}, 1s);
    EXPECT_EQ(snapshot.frames, 4);
    EXPECT_THAT(snapshot.overlay, HasSubstr("key 2"));
}

TEST_F(ViewerMediaPathTest, aRepeatOfAPictureThatNeverCameIsAChange) {
    startShowing();
    encoded({.capture = 6000});  // lost
    media.handleGap();
    receive({.keyframe = true, .capture = 6000});
    receive({.capture = 6000});
    EXPECT_THAT(changes, ElementsAre(true, true, false));
    // The same moment in another size is another picture.
    useEncoder({80, 48});
    receiveConfig();
    receive({.keyframe = true, .capture = 6000});
    EXPECT_THAT(changes, ElementsAre(true, true, false, true));
}

TEST_F(ViewerMediaPathTest, aNackIsSentAndCounted) {
    media.handleNack({.frame = 7, .indices = {1, 2}});
    EXPECT_EQ(countOf(MessageType::nack), 1);
    EXPECT_EQ(media.stats().take({}, 1s).resendRequests, 1);
}

TEST_F(ViewerMediaPathTest, afterClosingNothingIsDecoded) {
    startShowing();
    media.close();
    receiveKeyframe();
    receiveConfig();
    EXPECT_EQ(changes.size(), 1u);
    EXPECT_EQ(requests(), 0);
}

// Other messages

TEST_F(ViewerMediaPathTest, textFocusIsOnlyTrueForOne) {
    for (const Bytes& payload : {Bytes{1}, Bytes{1, 0}, Bytes{0}, Bytes{2}, Bytes{}}) {
        media.handle(MessageType::textFocus, payload);
    }
    EXPECT_THAT(focus, ElementsAre(true, true, false, false, false));
}

TEST_F(ViewerMediaPathTest, displayListsAreLogged) {
    DisplayList list{.displays = {{1, "DP-1", 1920, 1080}, {2, "DP-2", 1280, 720}}, .currentID = 2};
    media.handle(MessageType::displayList, list.encode());
    EXPECT_EQ(lastLine(), "Server displays: DP-1 1920×1080, DP-2 1280×720; showing DP-2");
    list.currentID = 9;
    media.handle(MessageType::displayList, list.encode());
    EXPECT_THAT(lastLine(), HasSubstr("; showing virtual display matching this window"));
    media.handle(MessageType::displayList, DisplayList{}.encode());
    EXPECT_EQ(lastLine(), "Server displays: ; showing virtual display matching this window");
}

TEST_F(ViewerMediaPathTest, cursorsAreLogged) {
    std::optional<CursorShape> seen;
    media.onCursor = [&](const CursorShape& shape) { seen = shape; };
    const CursorShape shape{.width = 24, .height = 24, .hotX = 3, .hotY = 4, .png = {1, 2, 3}};
    media.handle(MessageType::cursor, shape.encode());
    EXPECT_EQ(seen, shape);
    EXPECT_EQ(lastLine(), "Remote cursor: 24×24 pt, hot spot 3,4, 3 bytes");
}

TEST_F(ViewerMediaPathTest, theHostsLogLinesArePutIntoOurs) {
    media.handle(MessageType::log, bytesOf("caf\xC3\xA9 \xFF"));
    const auto entries = DebugLog::shared().entries();
    EXPECT_EQ(entries.back().text, "café �");
    EXPECT_EQ(entries.back().source, DebugLog::Source::server);
    media.handle(MessageType::log, Bytes(1'000'000, 'x'));
    EXPECT_LE(lastLine().size(), 8192u);
}

TEST_F(ViewerMediaPathTest, whatDoesNotDecodeIsDroppedWithoutAWord) {
    startShowing();
    DebugLog::shared().clear();
    for (int type = 1; type <= 19; ++type) {
        // Any bytes at all are a log line, a focus, a clipboard, a denial or a goodbye.
        if (type == 6 || type == 10 || type == 16 || type == 18 || type == 19) continue;
        media.handle(*messageTypeOf(static_cast<std::uint8_t>(type)), bytesOf("{"));
    }
    EXPECT_TRUE(DebugLog::shared().entries().empty());
    EXPECT_TRUE(stream->sent.empty());
    EXPECT_EQ(stream->cancelCount, 0);
    receive({});
    EXPECT_EQ(changes.size(), 2u);
}

TEST_F(ViewerMediaPathTest, byeEndsTheStream) {
    media.handle(MessageType::bye, {});
    EXPECT_EQ(stream->cancelCount, 1);
}

}  // namespace
}  // namespace velmora
