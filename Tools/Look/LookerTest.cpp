#include "Tools/Look/Looker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScratchFolder.h"
#include "Testing/ScriptedHost.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class SilentPath final : public PathMonitor {
public:
    std::unique_ptr<Request> currentPath(std::function<void(PathKind)>) override { return nullptr; }
};

class LookerTest : public testing::Test {
protected:
    void start(Looker::Settings settings = {}) {
        settings.writePng = [this](const Picture& picture, const std::string& file) -> Status {
            if (file == "full") return Failure{"disk full"};
            written.emplace_back(file, picture.size);
            return Done{};
        };
        looker = std::make_unique<Looker>(
            ViewerOptions{.target = Endpoint::hostPort("10.0.0.5", 47272), .name = "Desk"},
            ViewerConnection::Services{
                .transport = link, .preferences = preferences, .paths = path, .decompressors = decompressors},
            main, client, std::move(settings), out, err);
        looker->onFinished = [this](int code) { exitCode = code; };
        looker->start(std::nullopt);
        time.advanceBy(50ms);
    }
    void add(std::string_view line) { looker->add(**LookStep::parse(line)); }
    void showPicture() {
        host.startStream({64, 48});
        host.sendKeyframe();
        time.advanceBy(50ms);
    }
    ~LookerTest() override {
        looker.reset();
        time.settle();
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, client{time, "velmora.quic.client"}, hostQueue{time, "host"};
    SimulatedLink link{time};
    FakePreferenceStore preferences;
    SilentPath path;
    FakeVideoDecompressorFactory decompressors;
    ScriptedHost host{link, hostQueue, {}};
    std::ostringstream out, err;
    std::unique_ptr<Looker> looker;
    std::optional<int> exitCode;
    std::vector<std::pair<std::string, PixelSize>> written;
};

TEST_F(LookerTest, stepsAreDoneInTurnFromTheFirstPictureOn) {
    start({.printSteps = true});
    add("move 32 24");
    add("wait 2");
    add("png a.png");
    looker->endScript();
    time.advanceBy(1s);
    EXPECT_EQ(host.countOf(MessageType::input), 0);
    showPicture();
    EXPECT_EQ(InputEvent::decode(host.lastOf(MessageType::input))->x, 0.5);
    EXPECT_TRUE(written.empty());
    time.advanceBy(2s);
    EXPECT_EQ(written, (std::vector<std::pair<std::string, PixelSize>>{{"a.png", {64, 48}}}));
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(out.str(), "ok move 32 24\nok wait 2\nok png a.png\n");
    time.advanceBy(1s);
    EXPECT_EQ(host.countOf(MessageType::bye), 1);
}

TEST_F(LookerTest, settlingWaitsForChangesButNotForRepeats) {
    start();
    showPicture();
    add("settle");
    looker->endScript();
    const auto still = host.nowMicros();
    for (int i = 0; i < 5; ++i) {
        time.advanceBy(200ms);
        host.sendFrame({.captureMicros = i < 3 ? host.nowMicros() : still});
    }
    EXPECT_EQ(exitCode, std::nullopt);
    for (int i = 0; i < 3; ++i) {
        time.advanceBy(150ms);
        host.sendFrame({.captureMicros = still});
    }
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(err.str(), "");
}

TEST_F(LookerTest, settlingHasALimit) {
    start();
    showPicture();
    add("settle 1");
    looker->endScript();
    for (int i = 0; i < 11; ++i) {
        time.advanceBy(100ms);
        host.sendFrame({});
    }
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(err.str(), "The picture still moves.\n");
}

TEST_F(LookerTest, aChangeIsWaitedFor) {
    start();
    showPicture();
    add("move 1 1");
    add("change 1");
    time.advanceBy(900ms);
    host.sendFrame({});
    time.advanceBy(1s);
    EXPECT_EQ(exitCode, std::nullopt);
    EXPECT_EQ(out.str(), "changed after 901.0 ms\n");  // and 1 ms on the way
    add("change 1");
    time.advanceBy(1100ms);
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(err.str(), "No change within 1 s.\n");
}

TEST_F(LookerTest, whatGoesWrongIsSaidAndEndsIt) {
    start();
    host.send(MessageType::denied, HostDenial::encode(HostDenial::busy, ""));
    time.advanceBy(1s);
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(err.str(),
              "Desk is in use\nSomeone else is connected to Desk right now.\nTry again when they're done.\n");

    exitCode.reset();
    err.str("");
    start();
    showPicture();
    add("png full");
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(err.str(), "disk full\n");
}

TEST_F(LookerTest, theWordsOfAHostCommandNoTerminal) {
    start();
    host.send(MessageType::denied, HostDenial::encode("odd", "no\x1b[2J" + std::string(100'000, 'x')));
    time.advanceBy(1s);
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(err.str().find('\x1b'), std::string::npos);
    EXPECT_LT(err.str().size(), 5000u);
}

TEST_F(LookerTest, aMistakeWaitsForItsTurn) {
    start();
    add("wait 1");
    looker->add({"jump", LookStep::Mistake{"cannot jump"}});
    showPicture();
    EXPECT_EQ(exitCode, std::nullopt);
    time.advanceBy(1s);
    EXPECT_EQ(exitCode, 2);
    EXPECT_EQ(err.str(), "cannot jump\n");
}

TEST_F(LookerTest, aHostThatShowsNothingIsGivenUp) {
    start({.limit = LookStep::Seconds(3)});
    time.advanceBy(3s);
    EXPECT_EQ(exitCode, 1);
    EXPECT_EQ(err.str(), "No picture from Desk within 3 s.\n");
}

TEST_F(LookerTest, figuresArePrintedAndRecorded) {
    const ScratchFolder folder;
    start({.printStats = true});
    showPicture();
    add("stats-csv " + (folder / "a.csv").string());
    time.advanceBy(2100ms);
    EXPECT_THAT(out.str(), HasSubstr("64×48 H.264 · "));
    std::ostringstream recorded;
    recorded << std::ifstream(folder / "a.csv").rdbuf();
    EXPECT_THAT(recorded.str(), testing::StartsWith(std::string(ViewerStats::csvHeader) + "\n"));
    const std::string rows = recorded.str();
    EXPECT_EQ(std::ranges::count(rows, '\n'), 3);
}

}  // namespace
}  // namespace velmora
