#include "Host/StreamSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Testing/DiaryReader.h"
#include "Testing/HostFixture.h"
#include "Testing/ScriptedViewer.h"
#include "Testing/SimulatedLink.h"
#include "VelmoraKit/Media/VideoPackets.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// Virtual displays on the fixture's screen: each gets the size that is asked for, times the scale.
class FakeVirtualDisplays final : public VirtualDisplayFactory {
public:
    static constexpr DisplayId id = 99;
    explicit FakeVirtualDisplays(HostFixture& host) : host_(host) {}

    std::unique_ptr<VirtualDisplay> make(int, Queue& queue) override {
        if (refuses) return nullptr;
        return std::make_unique<One>(*this, queue);
    }
    bool refuses = false, neverAppears = false, refusesMode = false;
    int existing = 0;
    std::vector<DisplayRequest> requests;
    HostClock::duration settingTakes = 5ms;

private:
    struct One final : VirtualDisplay {
        One(FakeVirtualDisplays& owner, Queue& queue) : owner(owner), queue(queue) { ++owner.existing; }
        ~One() override {
            --owner.existing;
            owner.show(std::nullopt);
        }
        DisplayId displayId() const override { return id; }
        void setMode(const DisplayRequest& request, UniqueFunction<void(std::optional<Size>)> done) override {
            owner.requests.push_back(request);
            timer = queue.after(owner.settingTakes, [this, request, done = std::move(done)]() mutable {
                if (owner.refusesMode) {
                    done(std::nullopt);
                    return;
                }
                const PixelSize pixels{static_cast<int>(request.width * request.scale),
                                       static_cast<int>(request.height * request.scale)};
                if (!owner.neverAppears) owner.show(pixels);
                done(Size{static_cast<double>(request.width), static_cast<double>(request.height),
                          static_cast<double>(pixels.width), static_cast<double>(pixels.height)});
            });
        }
        FakeVirtualDisplays& owner;
        Queue& queue;
        TimerToken timer;
    };
    void show(std::optional<PixelSize> size) {
        std::vector<Display> all;
        if (size) all.push_back(HostFixture::display(id, "Velmora", *size));
        const auto connected = host_.displays.list();
        for (const Display& display : *connected) {
            if (display.id != id) all.push_back(display);
        }
        for (Display& display : all) display.isMain = false;
        host_.setDisplays(all);
    }
    HostFixture& host_;
};

class StreamSessionTest : public testing::Test {
protected:
    StreamSessionTest() { link.setConditions({.delay = 0ms}); }
    ~StreamSessionTest() override {
        viewer.reset();
        time.advanceBy(1s);
    }
    ScriptedViewer& connect(Hello hello = {}) {
        hello.name = "Desk";
        hello.password = HostFixture::password;
        if (!host.server) host.start();
        viewer = std::make_unique<ScriptedViewer>(link, viewerQueue);
        viewer->say(hello);
        time.advanceBy(1ms);
        return *viewer;
    }
    /// With a picture at the viewer and nothing more to come.
    void connectAndRest(const Hello& hello = {}) {
        connect(hello);
        time.advanceBy(2s);
        ASSERT_FALSE(viewer->frames.empty());
        viewer->received.clear();
        viewer->frames.clear();
    }
    template <class Record>
    void say(MessageType type, const Record& record) {
        viewer->send(type, record.encode());
        time.advanceBy(1ms);
    }
    std::vector<Bytes> payloadsOf(MessageType type) const {
        std::vector<Bytes> payloads;
        for (const auto& message : viewer->received) {
            if (message.type == type) payloads.push_back(message.payload);
        }
        return payloads;
    }
    std::vector<std::string> linesAfterHello() const {
        auto lines = viewer->logLines();
        if (!lines.empty()) lines.erase(lines.begin());
        return lines;
    }

    VirtualTime time;
    SimulatedLink link{time};
    DiaryReader diary;
    VirtualQueue viewerQueue{time, "viewer"};
    HostFixture host{time, link};
    FakeVirtualDisplays virtualDisplays{host};
    std::unique_ptr<ScriptedViewer> viewer;
};

const std::string wokeDisplay =
    "Woke the display (it may have been off or locked) and keeping it on while streaming";
const std::string encoderLine = "Encoder: H.264 64×32, 20 Mbit/s, low-latency rate control on";
const std::string startedLine = "Capture started: display 1, 64×32 px, up to 60 fps";

// Start

TEST_F(StreamSessionTest, itTellsTheViewerWhatItDoesAndShowsThePicture) {
    connect();
    EXPECT_THAT(linesAfterHello(),
                ElementsAre(wokeDisplay, "Viewer chose this Mac's own display; streaming the main display",
                            encoderLine, startedLine));
    for (const std::string& line : viewer->logLines()) EXPECT_THAT(diary.hostLines(), Contains(line));
    EXPECT_EQ(host.keepAwake.activities(), 1);
    EXPECT_EQ(host.keepAwake.displayAssertions(), 1);
    EXPECT_THAT(host.keepAwake.userActivities, ElementsAre("Velmora viewer connected"));
    const auto list = viewer->lastDisplayList();
    ASSERT_TRUE(list);
    EXPECT_THAT(list->displays, ElementsAre(ServerDisplay{1, "Built-in", 64, 32}));
    EXPECT_EQ(list->currentID, 1u);
    EXPECT_FALSE(list->virtualAvailable);
    time.advanceBy(5ms);
    ASSERT_EQ(viewer->frames.size(), 1u);
    EXPECT_TRUE(viewer->frames[0].isKeyframe);
    time.advanceBy(2s);
    EXPECT_EQ(host.status(), "Streaming to Desk · 0 fps · 0.0 Mbit/s");
}

TEST_F(StreamSessionTest, aWindowToMatchIsAnsweredWithTheMainDisplayWhereThereIsNoVirtualOne) {
    connect({.display = DisplayRequest{800, 600, 2}});
    EXPECT_THAT(linesAfterHello(),
                ElementsAre(wokeDisplay, "Creating virtual display 800×600 pt @2x…",
                            "⚠︎ Could not create the virtual display; streaming the main display instead",
                            encoderLine, startedLine));
    viewer->received.clear();
    say(MessageType::selectDisplay, DisplaySelection{});
    EXPECT_THAT(
        viewer->logLines(),
        ElementsAre("⚠︎ Match This Window is not available: virtual displays don't work on this Mac"));
    EXPECT_FALSE(viewer->lastDisplayList()->virtualAvailable);
}

TEST_F(StreamSessionTest, theSwitchInTheServerMenuRulesOutTheVirtualDisplay) {
    host.settings.dynamicDisplay = false;
    host.virtualDisplays = &virtualDisplays;
    connect({.display = DisplayRequest{800, 600, 2}});
    EXPECT_TRUE(
        viewer->hasLogLine("Match Viewer Window Size is off in the server menu; streaming the main display"));
    say(MessageType::selectDisplay, DisplaySelection{});
    EXPECT_TRUE(viewer->hasLogLine(
        "⚠︎ Match This Window is not available: “Match Viewer Window Size” is off in "
        "the server menu"));
    EXPECT_FALSE(viewer->lastDisplayList()->virtualAvailable);
}

TEST_F(StreamSessionTest, soundIsOnlySpokenOfWhenItWasAskedFor) {
    connect({.audio = true});
    EXPECT_THAT(linesAfterHello(), Contains("⚠︎ Opus encoder not available; no sound"));
    viewer.reset();
    time.advanceBy(1s);
    connect();
    EXPECT_THAT(linesAfterHello(), Not(Contains("⚠︎ Opus encoder not available; no sound")));
}

TEST_F(StreamSessionTest, aCodecThatNoHardwareGivesIsReplacedAndSaid) {
    host.settings.codec = VideoCodec::hevc;
    host.compressors.behaviour.codec = VideoCodec::h264;
    host.compressors.behaviour.usesLowLatencyRateControl = false;
    connect();
    EXPECT_TRUE(viewer->hasLogLine("HEVC is asked for, but no hardware here encodes it; encoding H.264"));
    EXPECT_TRUE(
        viewer->hasLogLine("Encoder: H.264 64×32, 20 Mbit/s, low-latency rate control not available"));
    EXPECT_EQ(viewer->lastConfig()->codec, VideoCodec::h264);
}

TEST_F(StreamSessionTest, withoutADisplayItLooksForThreeSecondsAndThenTellsWhy) {
    host.setDisplays({});
    connect();
    time.advanceBy(2890ms);
    EXPECT_FALSE(viewer->denied());
    time.advanceBy(20ms);
    ASSERT_TRUE(viewer->denied());
    EXPECT_EQ(viewer->denied()->message, "Screen capture didn't start: No display found");
    time.advanceBy(1s);
    EXPECT_TRUE(viewer->ended);
    EXPECT_EQ(host.keepAwake.activities() + host.keepAwake.displayAssertions(), 0);
}

TEST_F(StreamSessionTest, aWindowSystemThatIsNotThereIsAFailureAtOnce) {
    host.displays.fail({"no window system"});
    connect();
    ASSERT_TRUE(viewer->denied());
    EXPECT_EQ(viewer->denied()->message, "Screen capture didn't start: no window system");
}

TEST_F(StreamSessionTest, aCaptureThatDoesNotStartAsksForThePermission) {
    host.screen.fail({"cannot read the screen"});
    connect();
    EXPECT_TRUE(viewer->hasLogLine(
        "⚠︎ Screen capture failed to start: cannot read the screen. Is Screen Recording allowed?"));
    EXPECT_EQ(viewer->denied()->message, "Screen capture didn't start: cannot read the screen");
}

TEST_F(StreamSessionTest, anEncoderThatCannotBeMadeEndsTheStart) {
    host.compressors.failure = Failure{"no encoder", -1};
    connect();
    EXPECT_EQ(viewer->denied()->message, "Screen capture didn't start: no encoder");
}

TEST_F(StreamSessionTest, largeDisplaysAreScaledToEvenSizesWithinTheLimit) {
    EXPECT_EQ(DisplayControl::streamSize({3840, 2160}), (PixelSize{3840, 2160}));
    EXPECT_EQ(DisplayControl::streamSize({7680, 4320}), (PixelSize{3840, 2160}));
    EXPECT_EQ(DisplayControl::streamSize({1367, 769}), (PixelSize{1366, 768}));
    EXPECT_EQ(DisplayControl::streamSize({2160, 5120}), (PixelSize{1620, 3840}));
    EXPECT_EQ(DisplayControl::streamSize({0, 0}), (PixelSize{0, 0}));
}

// What the viewer says

TEST_F(StreamSessionTest, aPingIsAnsweredWithTheHostsClockAndLoad) {
    connectAndRest();
    host.cpuPercent = 12.34;
    say(MessageType::ping, Ping{42});
    ASSERT_EQ(viewer->countOf(MessageType::pong), 1);
    const auto pong = Pong::decode(viewer->received.back().payload);
    EXPECT_EQ(pong->viewerMicros, 42u);
    EXPECT_EQ(pong->serverCPUPermille, 123u);
    EXPECT_EQ(pong->serverMicros, HostClock::micros(time.now() - 1ms));
    EXPECT_EQ(pong->droppedFrames, 0u);
}

TEST_F(StreamSessionTest, hintsAreAnsweredWithTheRateInForce) {
    connectAndRest();
    for (const std::int64_t mbps : {8, 0, 25, -4}) say(MessageType::bitrateHint, BitrateHint{mbps});
    EXPECT_THAT(viewer->logLines(), ElementsAre("Viewer asked for at most 8 Mbit/s; encoding at 8 Mbit/s",
                                                "Viewer asked for at most no limit; encoding at 20 Mbit/s",
                                                "Viewer asked for at most 25 Mbit/s; encoding at 20 Mbit/s",
                                                "Viewer asked for at most -4 Mbit/s; encoding at 20 Mbit/s"));
}

TEST_F(StreamSessionTest, aKeyframeRequestOnAStillScreenIsLoggedAndAnswered) {
    connectAndRest();
    viewer->send(MessageType::requestKeyframe);
    time.advanceBy(1s);
    EXPECT_TRUE(viewer->hasLogLine("Viewer asked for a keyframe"));
    EXPECT_EQ(std::ranges::count(viewer->frames, true, &VideoFrame::isKeyframe), 1);
    EXPECT_EQ(viewer->countOf(MessageType::streamConfig), 1);
}

TEST_F(StreamSessionTest, aNackBringsALostFrameBack) {
    connectAndRest();
    std::optional<std::uint32_t> lost;
    viewer->dropsDatagram = [&](ByteView datagram) {
        if (lost) return false;
        lost = VideoPackets::headerOf(datagram)->frame;
        return true;
    };
    host.paint();
    time.advanceBy(20ms);
    ASSERT_TRUE(lost);
    EXPECT_THAT(viewer->frames, IsEmpty());
    say(MessageType::nack, Nack{.frame = *lost});
    EXPECT_EQ(viewer->frames.size(), 1u);
}

TEST_F(StreamSessionTest, inputReachesTheMachineAndIsReleasedAtTheEnd) {
    connectAndRest();
    InputEvent press{.kind = InputEvent::Kind::mouseDown, .x = 0.5, .y = 0.5};
    say(MessageType::input, press);
    ASSERT_THAT(host.posters.log->events, Not(IsEmpty()));
    EXPECT_EQ(host.posters.log->events.back().kind, PostedEvent::Kind::mouseDown);
    viewer.reset();
    time.advanceBy(1s);
    EXPECT_EQ(host.posters.log->events.back().kind, PostedEvent::Kind::mouseUp);
}

TEST_F(StreamSessionTest, theClipboardIsSharedWhileItLasts) {
    connectAndRest();
    host.pasteboard.copyText("here");
    time.advanceBy(1s);
    ASSERT_EQ(viewer->countOf(MessageType::clipboard), 1);
    EXPECT_EQ(viewer->received.back().payload, (Bytes{0, 'h', 'e', 'r', 'e'}));
    say(MessageType::clipboard, ClipboardContent{ClipboardContent::Kind::text, bytesOf("there")});
    EXPECT_EQ(host.pasteboard.text(), "there");
    time.advanceBy(1s);
    EXPECT_EQ(viewer->countOf(MessageType::clipboard), 1) << "what came is not sent back";
    EXPECT_THAT(diary.hostLines(), Contains("Clipboard from viewer: text, 5 bytes"));
    viewer.reset();
    time.advanceBy(1s);
    host.pasteboard.copyText("alone again");
    time.advanceBy(1s);
    EXPECT_THAT(diary.hostLines(), Not(Contains("Clipboard to viewer: text, 11 bytes")));
}

TEST_F(StreamSessionTest, theViewerHearsOfTheCursorAndOfTextFocusOnceThereIsAPicture) {
    const CursorShape beam{.width = 9, .height = 16, .hotX = 4, .hotY = 8, .png = {1, 2, 3}};
    host.cursor.show(beam);
    host.textFocus.isSilent = true;
    connect();
    time.advanceBy(1s);
    ASSERT_EQ(viewer->countOf(MessageType::cursor), 1);
    ASSERT_EQ(viewer->countOf(MessageType::textFocus), 1);
    EXPECT_THAT(payloadsOf(MessageType::cursor), ElementsAre(beam.encode()));
    EXPECT_THAT(diary.hostLines(), Contains("Cursor shape changed: 9×16 pt"));
    host.cursor.show(beam);
    host.textFocus.focus(FocusedElement{.isEditable = true});
    time.advanceBy(1s);
    EXPECT_EQ(viewer->countOf(MessageType::cursor), 1);
    EXPECT_THAT(payloadsOf(MessageType::textFocus), ElementsAre(Bytes{0}, Bytes{1}));
    viewer.reset();
    time.advanceBy(1s);
    EXPECT_EQ(host.cursor.watches() + host.textFocus.watches(), 0);
}

TEST_F(StreamSessionTest, aCursorThatNeverRestsDoesNotFillTheLog) {
    connectAndRest();
    for (std::uint8_t frame = 0; frame < 100; ++frame) {
        host.cursor.show({.width = 24, .height = 24, .png = {frame}});
        time.advanceBy(50ms);
    }
    EXPECT_EQ(viewer->countOf(MessageType::cursor), 100);
    const auto lines = diary.hostLines();
    EXPECT_LE(std::ranges::count(lines, "Cursor shape changed: 24×24 pt"), 25);
}

TEST_F(StreamSessionTest, whatCannotBeDecodedIsIgnored) {
    connectAndRest();
    const Bytes garbage{1, 2, 3};
    for (int type = 1; type <= 19; ++type) {
        if (static_cast<MessageType>(type) == MessageType::bye) continue;
        if (static_cast<MessageType>(type) == MessageType::requestKeyframe) continue;
        viewer->send(static_cast<MessageType>(type), garbage);
    }
    say(MessageType::ping, Ping{1});
    EXPECT_EQ(viewer->countOf(MessageType::pong), 1);
    EXPECT_THAT(viewer->logLines(), IsEmpty());
    EXPECT_FALSE(viewer->ended);
}

TEST_F(StreamSessionTest, goodbyeEndsTheConnection) {
    connectAndRest();
    viewer->send(MessageType::bye);
    time.advanceBy(1s);
    EXPECT_EQ(viewer->ended, TransportState::cancelled);
    EXPECT_EQ(host.status(), "Running · waiting for a viewer");
}

TEST_F(StreamSessionTest, aCaptureThatEndsByItselfEndsTheSessionWithItsReason) {
    connectAndRest();
    host.screen.removeDisplay(HostFixture::mainDisplay);
    time.advanceBy(1s);
    EXPECT_TRUE(viewer->hasLogLine("⚠︎ Capture stopped: the display is gone"));
    EXPECT_TRUE(viewer->ended);
    EXPECT_THAT(host.screen.captures(), IsEmpty());
}

TEST_F(StreamSessionTest, itCanBeLeftAtAnyMoment) {
    host.virtualDisplays = &virtualDisplays;
    host.start();
    for (int microseconds = 0; microseconds < 30'000; microseconds += 700) {
        viewer = std::make_unique<ScriptedViewer>(link, viewerQueue);
        viewer->say({.name = "Desk",
                     .display = microseconds % 1400 ? std::optional(DisplayRequest{32, 16, 2}) : std::nullopt,
                     .password = HostFixture::password});
        time.advanceBy(std::chrono::microseconds(microseconds));
        if (microseconds % 2100)
            viewer->send(MessageType::selectDisplay, DisplaySelection{.displayID = 1}.encode());
        if (microseconds > 15'000) {
            viewer.reset();
        } else {
            host.server->disconnect();
        }
        time.advanceBy(2s);
        EXPECT_THAT(host.screen.captures(), IsEmpty()) << microseconds;
        EXPECT_EQ(host.keepAwake.activities() + host.keepAwake.displayAssertions(), 0) << microseconds;
        EXPECT_EQ(virtualDisplays.existing, 0) << microseconds;
        viewer.reset();
        time.advanceBy(1s);
    }
}

// Displays

TEST_F(StreamSessionTest, anotherDisplayIsShownWithItsOwnSize) {
    host.setDisplays(
        {HostFixture::display(1, "Built-in", {64, 32}), HostFixture::display(2, "Studio", {128, 64})});
    connectAndRest();
    say(MessageType::selectDisplay, DisplaySelection{.displayID = 2});
    time.advanceBy(20ms);
    EXPECT_THAT(viewer->logLines(),
                ElementsAre("Switching to “Studio”…", "Now streaming Studio, 128×64 px (0 ms)"));
    EXPECT_EQ(viewer->lastConfig()->width, 128u);
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 2u);
    ASSERT_FALSE(viewer->frames.empty());
    EXPECT_TRUE(viewer->frames[0].isKeyframe);

    viewer->received.clear();
    say(MessageType::selectDisplay, DisplaySelection{.displayID = 2});
    EXPECT_THAT(viewer->logLines(), IsEmpty());
    EXPECT_EQ(viewer->countOf(MessageType::displayList), 1)
        << "the display already shown only repeats the list";
}

TEST_F(StreamSessionTest, aDisplayThatIsNotThereIsLookedForAndTheOldOneStays) {
    connectAndRest();
    say(MessageType::selectDisplay, DisplaySelection{.displayID = 5});
    say(MessageType::selectDisplay, DisplaySelection{.displayID = 6});  // waits its turn
    EXPECT_THAT(viewer->logLines(), ElementsAre("Switching to “display 5”…"));
    time.advanceBy(2900ms);
    EXPECT_THAT(viewer->logLines(), ElementsAre("Switching to “display 5”…",
                                                "⚠︎ “display 5” is not available for capture",
                                                "Switching to “display 6”…"));
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 1u);
    host.paint();
    time.advanceBy(20ms);
    EXPECT_FALSE(viewer->frames.empty());
}

TEST_F(StreamSessionTest, ofManySelectionsAFewAreTriedAndThenTheLast) {
    connectAndRest();
    host.setDisplays(
        {HostFixture::display(1, "Built-in", {64, 32}), HostFixture::display(2, "Second", {32, 32})});
    for (std::uint32_t missing = 100; missing < 600; ++missing) {
        viewer->send(MessageType::selectDisplay, DisplaySelection{.displayID = missing}.encode());
    }
    viewer->send(MessageType::selectDisplay, DisplaySelection{.displayID = 2}.encode());
    time.advanceBy(60s);
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 2u);
    EXPECT_LT(viewer->countOf(MessageType::displayList), 20);
}

TEST_F(StreamSessionTest, mirrorsAreNotListedAndNamelessDisplaysGetANumber) {
    Display mirror = HostFixture::display(3, "Beamer", {64, 32});
    mirror.isMirror = true;
    host.setDisplays({HostFixture::display(1, "", {64, 32}), mirror});
    connect();
    EXPECT_THAT(viewer->lastDisplayList()->displays, ElementsAre(ServerDisplay{1, "Display 1", 64, 32}));
}

TEST_F(StreamSessionTest, aResizeOfAPhysicalDisplayIsIgnored) {
    connectAndRest();
    say(MessageType::resizeDisplay, DisplayRequest{800, 600, 2});
    time.advanceBy(1s);
    EXPECT_THAT(viewer->logLines(),
                ElementsAre("Resize requested: 800×600 pt @2x (ignored: not a virtual display)"));
}

class VirtualDisplaySessionTest : public StreamSessionTest {
protected:
    VirtualDisplaySessionTest() { host.virtualDisplays = &virtualDisplays; }
};

TEST_F(VirtualDisplaySessionTest, theWindowGetsADisplayOfItsOwnSize) {
    connect({.display = DisplayRequest{48, 24, 2}});
    time.advanceBy(10ms);
    EXPECT_THAT(linesAfterHello(),
                ElementsAre(wokeDisplay, "Creating virtual display 48×24 pt @2x…",
                            "Virtual display 99 ready: 48×24 pt, 96×48 px, now main display (5 ms)",
                            "Encoder: H.264 96×48, 20 Mbit/s, low-latency rate control on",
                            "Capture started: display 99, 96×48 px, up to 60 fps"));
    EXPECT_TRUE(viewer->lastConfig()->isDynamic);
    const auto list = viewer->lastDisplayList();
    EXPECT_THAT(list->displays, ElementsAre(ServerDisplay{1, "Built-in", 64, 32})) << "never the virtual one";
    EXPECT_TRUE(list->virtualAvailable);
    EXPECT_FALSE(list->currentID);
    viewer.reset();
    time.advanceBy(1s);
    EXPECT_EQ(virtualDisplays.existing, 0);
    EXPECT_THAT(diary.hostLines(),
                Contains("Removing virtual display; windows move back to the physical screen"));
}

TEST_F(VirtualDisplaySessionTest, aDisplayThatNeverAppearsFallsBackToTheMainOne) {
    virtualDisplays.neverAppears = true;
    connect({.display = DisplayRequest{48, 24, 2}});
    time.advanceBy(3100ms);
    EXPECT_TRUE(viewer->hasLogLine(
        "⚠︎ Virtual display did not appear in ScreenCaptureKit; streaming the main display instead"));
    EXPECT_EQ(virtualDisplays.existing, 0);
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 1u);
    EXPECT_FALSE(viewer->lastDisplayList()->virtualAvailable);
}

TEST_F(VirtualDisplaySessionTest, quickResizesCostTheRunningOneAndTheLast) {
    connectAndRest({.display = DisplayRequest{48, 24, 1}});
    virtualDisplays.requests.clear();
    for (int width = 50; width < 60; ++width) {
        viewer->send(MessageType::resizeDisplay, DisplayRequest{width, 24, 1}.encode());
    }
    time.advanceBy(100ms);
    ASSERT_EQ(virtualDisplays.requests.size(), 2u);
    EXPECT_EQ(virtualDisplays.requests[1].width, 59);
    EXPECT_TRUE(viewer->hasLogLine("Resized to 59×24 pt, 58×24 px (5 ms)"));
    EXPECT_EQ(viewer->lastConfig()->width, 58u);
}

TEST_F(VirtualDisplaySessionTest, aResizeToTheSamePixelsChangesNothing) {
    connectAndRest({.display = DisplayRequest{48, 24, 1}});
    const int made = host.compressors.made;
    say(MessageType::resizeDisplay, DisplayRequest{48, 24, 1});
    time.advanceBy(100ms);
    EXPECT_TRUE(viewer->hasLogLine("Resize: already 48×24 px"));
    EXPECT_EQ(host.compressors.made, made);
    virtualDisplays.refusesMode = true;
    say(MessageType::resizeDisplay, DisplayRequest{60, 24, 1});
    time.advanceBy(100ms);
    EXPECT_TRUE(viewer->hasLogLine("⚠︎ Could not switch the virtual display to 60×24"));
}

TEST_F(VirtualDisplaySessionTest, aResizeThatCameWhileStartingIsServedAfterwards) {
    connect({.display = DisplayRequest{48, 24, 1}});
    say(MessageType::resizeDisplay, DisplayRequest{60, 30, 1});
    time.advanceBy(100ms);
    EXPECT_EQ(viewer->lastConfig()->width, 60u);
}

TEST_F(VirtualDisplaySessionTest, theViewerMayChangeBetweenAPhysicalDisplayAndItsWindow) {
    connectAndRest({.display = DisplayRequest{48, 24, 1}});
    say(MessageType::selectDisplay, DisplaySelection{.displayID = 1});
    time.advanceBy(20ms);
    EXPECT_THAT(viewer->logLines(),
                ElementsAre("Switching to “Built-in”…", "Now streaming Built-in, 64×32 px (0 ms)",
                            "Removed the virtual display; windows move back to the physical screen"));
    EXPECT_EQ(virtualDisplays.existing, 0);
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 1u);
    EXPECT_FALSE(viewer->ended) << "the capture had left the virtual display before it went";

    viewer->received.clear();
    say(MessageType::selectDisplay, DisplaySelection{.window = DisplayRequest{40, 20, 2}});
    time.advanceBy(20ms);
    EXPECT_THAT(viewer->logLines(),
                ElementsAre("Creating virtual display 40×20 pt @2x…",
                            "Now streaming virtual display (now main display), 80×40 px (0 ms)"));
    EXPECT_FALSE(viewer->lastDisplayList()->currentID);

    viewer->received.clear();
    say(MessageType::selectDisplay, DisplaySelection{.window = DisplayRequest{44, 20, 1}});
    time.advanceBy(20ms);
    EXPECT_THAT(viewer->logLines(), ElementsAre("Resized to 44×20 pt, 44×20 px (5 ms)"));
    EXPECT_EQ(viewer->countOf(MessageType::displayList), 1);
}

TEST_F(VirtualDisplaySessionTest, aWindowThatIsSelectedIsNewerThanAResizeThatWasIgnored) {
    connectAndRest();
    say(MessageType::resizeDisplay, DisplayRequest{60, 30, 1});
    say(MessageType::selectDisplay, DisplaySelection{.window = DisplayRequest{40, 20, 1}});
    time.advanceBy(100ms);
    EXPECT_THAT(virtualDisplays.requests, ElementsAre(DisplayRequest{40, 20, 1}));
    EXPECT_EQ(viewer->lastConfig()->width, 40u);
}

TEST_F(VirtualDisplaySessionTest, withoutASizeTheWindowIs1600By1000AtScale2) {
    connectAndRest();
    say(MessageType::selectDisplay, DisplaySelection{});
    time.advanceBy(20ms);
    EXPECT_THAT(virtualDisplays.requests, ElementsAre(DisplayRequest{1600, 1000, 2}));
}

TEST_F(VirtualDisplaySessionTest, aVirtualDisplayThatFailsGivesTheOldDisplayBack) {
    connectAndRest();
    virtualDisplays.refuses = true;
    say(MessageType::selectDisplay, DisplaySelection{.window = DisplayRequest{40, 20, 2}});
    time.advanceBy(20ms);
    EXPECT_THAT(viewer->logLines(), ElementsAre("Creating virtual display 40×20 pt @2x…",
                                                "⚠︎ Could not create the virtual display",
                                                "Now streaming display 1, 64×32 px (0 ms)"));
    EXPECT_EQ(viewer->lastDisplayList()->currentID, 1u);
    EXPECT_TRUE(viewer->lastDisplayList()->virtualAvailable) << "it may work the next time";
    EXPECT_FALSE(viewer->frames.empty());

    viewer->received.clear();
    host.screen.fail({"gone"});
    virtualDisplays.refuses = true;
    time.advanceBy(1s);
    EXPECT_TRUE(viewer->ended);
}

TEST_F(VirtualDisplaySessionTest, withNoDisplayLeftTheSessionEnds) {
    connectAndRest();
    virtualDisplays.refusesMode = true;
    virtualDisplays.settingTakes = 50ms;
    say(MessageType::selectDisplay, DisplaySelection{});
    host.setDisplays({});  // nothing captures now, so nothing notices
    time.advanceBy(4s);
    EXPECT_TRUE(viewer->hasLogLine("⚠︎ No display to capture"));
    EXPECT_TRUE(viewer->ended);
}

}  // namespace
}  // namespace velmora
