#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Capture/X11ScreenCapture.h"
#include "Platform/Linux/Display/X11Displays.h"
#include "Testing/FakeScreenCapture.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "Tests/Contracts/ContractQueue.h"

namespace velmora {
namespace {

constexpr PixelRect leftRect{0, 0, 640, 400};
constexpr PixelRect rightRect{640, 0, 320, 200};

/// A screen with two displays, left (640x400) and right (320x200), both black at first.
class CaptureRig {
public:
    virtual ~CaptureRig() = default;
    virtual ContractQueue& queue() = 0;
    virtual std::unique_ptr<ScreenCapture> make() = 0;
    virtual DisplayId left() = 0;
    virtual DisplayId right() = 0;
    struct Stroke {
        PixelRect rect;  // of the left display, or its right neighbour beyond
        std::uint8_t grey;
    };
    virtual void paint(const std::vector<Stroke>& strokes) = 0;
    virtual void resizeLeft(PixelSize size) = 0;
    virtual void removeRight() = 0;
    virtual void endWindowSystem() = 0;
};

class FakeCaptureRig final : public CaptureRig {
public:
    FakeCaptureRig() {
        screen_.setDisplay(left(), {leftRect.width, leftRect.height});
        screen_.setDisplay(right(), {rightRect.width, rightRect.height});
    }
    ContractQueue& queue() override { return queue_; }
    std::unique_ptr<ScreenCapture> make() override { return screen_.make(queue_.queue()); }
    DisplayId left() override { return 7; }
    DisplayId right() override { return 9; }
    void paint(const std::vector<Stroke>& strokes) override {
        for (auto [rect, grey] : strokes) {
            screen_.paint(left(), rect, grey);
            rect.x -= rightRect.x;
            if (rect.x + rect.width > 0) screen_.paint(right(), rect, grey);
        }
    }
    void resizeLeft(PixelSize size) override { screen_.setDisplay(left(), size); }
    void removeRight() override { screen_.removeDisplay(right()); }
    void endWindowSystem() override { screen_.fail({"it is gone"}); }

private:
    VirtualContractQueue queue_;
    FakeScreen screen_;
};

class XCaptureRig : public CaptureRig {
public:
    explicit XCaptureRig(XServerFixture::Kind kind) : server_(kind), client_(server_.display()) {
        EXPECT_TRUE(server_.ok()) << server_.error();
    }
    ContractQueue& queue() override { return queue_; }
    std::unique_ptr<ScreenCapture> make() override {
        return X11ScreenCaptureFactory(server_.display()).make(queue_.queue());
    }
    DisplayId left() override { return left_; }
    DisplayId right() override { return right_; }
    void paint(const std::vector<Stroke>& strokes) override {
        std::vector<XTestClient::Stroke> coloured;
        for (const auto& [rect, grey] : strokes) coloured.push_back({rect, grey * 0x010101u});
        client_.fill(coloured);
    }
    void endWindowSystem() override { server_.kill(); }

    XServerFixture server_;
    XTestClient client_;

protected:
    void learnIds(const std::string& leftName, const std::string& rightName) {
        const auto displays = X11Displays(server_.display()).list();
        ASSERT_TRUE(displays.ok()) << displays.error().text;
        for (const Display& display : *displays) {
            if (display.name == leftName) left_ = display.id;
            if (display.name == rightName) right_ = display.id;
        }
        ASSERT_TRUE(left_ != 0 && right_ != 0);
        client_.fill({0, 0, 1024, 768}, 0);
    }

private:
    ThreadContractQueue queue_;
    DisplayId left_ = 0, right_ = 0;
};

class XvfbRig final : public XCaptureRig {
public:
    XvfbRig() : XCaptureRig(XServerFixture::Kind::xvfb) {
        EXPECT_TRUE(client_.defineMonitor("left", leftRect, "screen"));
        EXPECT_TRUE(client_.defineMonitor("right", rightRect));
        learnIds("left", "right");
    }
    void resizeLeft(PixelSize size) override {
        // In two steps, as the server has it: for a moment the display is not there.
        EXPECT_TRUE(client_.deleteMonitor("left"));
        EXPECT_TRUE(client_.defineMonitor("left", {0, 0, size.width, size.height}, "screen"));
    }
    void removeRight() override { EXPECT_TRUE(client_.deleteMonitor("right")); }
};

class XorgRig final : public XCaptureRig {
public:
    XorgRig() : XCaptureRig(XServerFixture::Kind::xorgDummy) {
        EXPECT_TRUE(client_.setOutput("DUMMY0", leftRect));
        EXPECT_TRUE(client_.setOutput("DUMMY1", rightRect));
        learnIds("DUMMY0", "DUMMY1");
    }
    void resizeLeft(PixelSize size) override {
        EXPECT_TRUE(client_.setOutput("DUMMY0", {0, 0, size.width, size.height}));
    }
    void removeRight() override { EXPECT_TRUE(client_.turnOff("DUMMY1")); }
};

/// What the samples of a capture added up to. Belongs to the queue.
struct Seen {
    int samples = 0, wholes = 0, stops = 0;
    std::vector<PixelRect> damage;  // of the last sample
    std::uint64_t micros = 0;
    SharedPicture picture;
    Failure failure;
    bool isRising = true;
    bool isTidy = true;

    /// Shade at a place of the last picture, 0 to 255.
    int greyAt(int x, int y) const {
        if (!picture) return -1;
        return ((picture->y[y * picture->strideY + x] - 16) * 255 + 109) / 219;
    }
    bool shows(int grey, int x, int y) const { return std::abs(greyAt(x, y) - grey) <= 2; }
    bool damaged(int x, int y) const {
        return std::ranges::any_of(damage, [&](const PixelRect& r) {
            return x >= r.x && x < r.x + r.width && y >= r.y && y < r.y + r.height;
        });
    }
};

template <class Rig>
class ScreenCaptureContract : public testing::Test {
protected:
    ScreenCaptureContract() {
        capture->onSample = [this](const ScreenSample& sample) {
            note(sample);
            if (duringSample) duringSample();
            rig.queue().signal();
        };
        capture->onStopped = [this](const Failure& failure) {
            ++seen.stops;
            seen.failure = failure;
            rig.queue().signal();
        };
    }
    void note(const ScreenSample& sample) {
        EXPECT_TRUE(rig.queue().queue().isCurrent());
        ++seen.samples;
        seen.picture = sample.picture;
        seen.damage.assign(sample.damage.begin(), sample.damage.end());
        seen.isRising = seen.isRising && sample.captureMicros > seen.micros;
        seen.micros = sample.captureMicros;
        const PixelSize size = sample.picture->size;
        if (sample.damage.size() == 1 && sample.damage[0] == PixelRect{0, 0, size.width, size.height}) {
            ++seen.wholes;
        }
        const PixelRect* before = nullptr;
        for (const PixelRect& r : sample.damage) {
            const bool isInside = !r.isEmpty() && r.x >= 0 && r.y >= 0 && r.x + r.width <= size.width &&
                                  r.y + r.height <= size.height &&
                                  ((r.x | r.y | r.width | r.height) & 1) == 0;
            const bool follows = !before || r.y >= before->y + before->height ||
                                 (r.y == before->y && r.x >= before->x + before->width);
            seen.isTidy = seen.isTidy && isInside && follows;
            before = &r;
        }
        seen.isTidy = seen.isTidy && !sample.damage.empty();
    }
    ScreenCapture::Configuration configuration(DisplayId display, PixelSize size) {
        return {.display = display, .size = size, .framesPerSecond = 60};
    }
    using Call = void (ScreenCapture::*)(const ScreenCapture::Configuration&, ScreenCapture::Completion);
    Status call(Call operation, const ScreenCapture::Configuration& with) {
        std::optional<Status> result;
        (capture.get()->*operation)(with, [&](Status status) {
            EXPECT_TRUE(rig.queue().queue().isCurrent());
            result = std::move(status);
            rig.queue().signal();
        });
        EXPECT_TRUE(rig.queue().waitUntil([&] { return result.has_value(); }));
        return result.value_or(Status(Failure{"no completion"}));
    }
    void start(PixelSize size = {leftRect.width, leftRect.height}) {
        const Status started = call(&ScreenCapture::start, configuration(rig.left(), size));
        ASSERT_TRUE(started.ok()) << started.error().text;
        ASSERT_TRUE(rig.queue().waitUntil([&] { return seen.samples > 0; }));
    }
    void stop() {
        bool stopped = false;
        capture->stop([&](Status) {
            stopped = true;
            rig.queue().signal();
        });
        ASSERT_TRUE(rig.queue().waitUntil([&] { return stopped; }));
    }
    bool waitUntil(std::function<bool()> condition) { return rig.queue().waitUntil(std::move(condition)); }
    void run(Queue::Block block) { rig.queue().run(std::move(block)); }

    Rig rig;
    Seen seen;
    std::function<void()> duringSample;
    std::unique_ptr<ScreenCapture> capture = rig.make();  // last: it ends before what it calls
};

using Rigs = testing::Types<FakeCaptureRig, XvfbRig, XorgRig>;
struct RigNames {
    template <class T>
    static std::string GetName(int) {
        if (std::is_same_v<T, FakeCaptureRig>) return "Fake";
        return std::is_same_v<T, XvfbRig> ? "Xvfb" : "Xorg";
    }
};
TYPED_TEST_SUITE(ScreenCaptureContract, Rigs, RigNames);

TYPED_TEST(ScreenCaptureContract, theFirstSampleIsTheWholePicture) {
    this->rig.paint({{{100, 50, 30, 20}, 200}});
    this->start();
    this->run([&] {
        EXPECT_EQ(this->seen.wholes, 1);
        EXPECT_EQ(this->seen.picture->size, (PixelSize{640, 400}));
        EXPECT_TRUE(this->seen.shows(200, 110, 60)) << this->seen.greyAt(110, 60);
        EXPECT_TRUE(this->seen.shows(0, 639, 399));
        EXPECT_LE(this->seen.micros, this->rig.queue().queue().nowMicros());
    });
}

TYPED_TEST(ScreenCaptureContract, aChangeIsToldWithItsPlaceAndTheRestStays) {
    this->rig.paint({{{500, 300, 20, 20}, 90}});
    this->start();
    this->rig.paint({{{101, 51, 9, 7}, 255}, {{301, 353, 1, 1}, 128}});
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(128, 301, 353); }));
    this->run([&] {
        EXPECT_TRUE(this->seen.shows(255, 109, 57));
        EXPECT_TRUE(this->seen.shows(90, 510, 310));
        EXPECT_TRUE(this->seen.damaged(301, 353));
        EXPECT_FALSE(this->seen.damaged(510, 310));
        EXPECT_EQ(this->seen.wholes, 1);
        EXPECT_TRUE(this->seen.isTidy);
        EXPECT_TRUE(this->seen.isRising);
    });
}

TYPED_TEST(ScreenCaptureContract, nothingIsDeliveredWhileNothingChangesHere) {
    this->start();
    this->rig.paint({{{700, 50, 30, 20}, 200}});  // on the neighbour
    this->capture->captureWhole();
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.wholes == 2; }));
    this->run([&] { EXPECT_EQ(this->seen.samples, 2); });
}

TYPED_TEST(ScreenCaptureContract, capturesKeepToTheFrameRateHoweverFastTheScreenChanges) {
    this->start();
    auto& queue = this->rig.queue().queue();
    const auto from = queue.now();
    for (int i = 1; i <= 200; ++i) {
        this->rig.paint({{{100, 100, 50, 50}, static_cast<std::uint8_t>(i)}});
    }
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(200, 120, 120); }));
    this->run([&] {
        const auto intervals = (queue.now() - from) / std::chrono::microseconds(16'667);
        EXPECT_LE(this->seen.samples, 1 + 2 + intervals);
        EXPECT_TRUE(this->seen.isRising);
    });
}

TYPED_TEST(ScreenCaptureContract, whatWasPutOffIsDeliveredWhenResumed) {
    this->start();
    bool isFull = true;
    int asked = 0;
    this->run([&] {
        this->capture->admit = [&] {
            ++asked;
            this->rig.queue().signal();
            return isFull ? ScreenCapture::Admission::putOff : ScreenCapture::Admission::take;
        };
    });
    this->rig.paint({{{100, 100, 10, 10}, 50}});
    EXPECT_TRUE(this->waitUntil([&] { return asked == 1; }));
    this->rig.paint({{{200, 300, 10, 10}, 70}});
    this->capture->resume();  // asked again, and refused again
    EXPECT_TRUE(this->waitUntil([&] { return asked == 2; }));
    this->run([&] {
        EXPECT_EQ(this->seen.samples, 1);
        isFull = false;
    });
    this->capture->resume();
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(70, 205, 305); }));
    this->run([&] {
        EXPECT_TRUE(this->seen.shows(50, 105, 105));
        EXPECT_TRUE(this->seen.damaged(105, 105));
        EXPECT_TRUE(this->seen.damaged(205, 305));
        EXPECT_EQ(this->seen.samples, 2);
        EXPECT_EQ(asked, 3);
    });
}

TYPED_TEST(ScreenCaptureContract, aBusyConsumerGetsTheNewestPictureNext) {
    this->start();
    bool painted = false;
    this->run([&] {
        this->duringSample = [&] {
            if (std::exchange(painted, true)) return;
            for (int i = 1; i <= 3; ++i) {
                this->rig.paint({{{100, 50 * i, 10, 10}, static_cast<std::uint8_t>(60 * i)}});
            }
        };
    });
    this->rig.paint({{{10, 10, 10, 10}, 10}});
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(180, 105, 155); }));
    this->run([&] {
        EXPECT_EQ(this->seen.samples, 3);
        EXPECT_TRUE(this->seen.damaged(105, 55) && this->seen.damaged(105, 105) &&
                    this->seen.damaged(105, 155));
    });
}

TYPED_TEST(ScreenCaptureContract, updateTurnsToAnotherDisplayWithAWholePicture) {
    this->rig.paint({{{660, 20, 40, 40}, 240}});
    this->start();
    ASSERT_TRUE(this->call(&ScreenCapture::update, this->configuration(this->rig.right(), {320, 200})).ok());
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.picture->size == PixelSize{320, 200}; }));
    this->run([&] {
        EXPECT_EQ(this->seen.wholes, 2);
        EXPECT_TRUE(this->seen.shows(240, 30, 30));
        EXPECT_TRUE(this->seen.isRising);
    });
    this->rig.paint({{{700, 100, 10, 10}, 120}});
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(120, 65, 105); }));
    this->run([&] { EXPECT_TRUE(this->seen.damaged(65, 105)); });
}

TYPED_TEST(ScreenCaptureContract, anUpdateToNowhereFailsAndCaptureGoesOn) {
    this->start();
    const Status status = this->call(&ScreenCapture::update, this->configuration(4711, {320, 200}));
    ASSERT_FALSE(status.ok());
    EXPECT_FALSE(status.error().text.empty());
    this->rig.paint({{{100, 100, 10, 10}, 50}});
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(50, 105, 105); }));
    this->run([&] { EXPECT_EQ(this->seen.picture->size, (PixelSize{640, 400})); });
}

TYPED_TEST(ScreenCaptureContract, aSmallerPictureShowsTheDisplayScaled) {
    this->start({480, 300});
    this->rig.paint({{{320, 200, 320, 200}, 200}});
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(200, 470, 290); }));
    this->run([&] {
        EXPECT_TRUE(this->seen.shows(200, 244, 154));
        EXPECT_TRUE(this->seen.shows(0, 236, 146));
        EXPECT_FALSE(this->seen.damaged(100, 100));
        EXPECT_TRUE(this->seen.isTidy);
    });
}

TYPED_TEST(ScreenCaptureContract, aDisplayThatChangesItsModeIsShownInPicturesOfTheSameSize) {
    this->start();
    this->rig.resizeLeft({320, 200});
    this->rig.paint({{{160, 100, 160, 100}, 200}, {{0, 0, 160, 100}, 60}});
    EXPECT_TRUE(this->waitUntil([&] {
        return this->seen.picture->size == PixelSize{640, 400} && this->seen.shows(200, 630, 390) &&
               this->seen.shows(60, 20, 20);
    }));
    this->run([&] {
        EXPECT_GE(this->seen.wholes, 2);
        EXPECT_EQ(this->seen.stops, 0);
    });
}

TYPED_TEST(ScreenCaptureContract, aDisplayThatGoesAwayStopsItsCaptureInWords) {
    this->start();
    ASSERT_TRUE(this->call(&ScreenCapture::update, this->configuration(this->rig.right(), {320, 200})).ok());
    this->rig.removeRight();
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.stops == 1; }));
    int samples = 0;
    this->run([&] {
        EXPECT_FALSE(this->seen.failure.text.empty());
        samples = this->seen.samples;
    });
    this->rig.paint({{{100, 100, 10, 10}, 50}});
    ASSERT_TRUE(this->call(&ScreenCapture::start, this->configuration(this->rig.left(), {640, 400})).ok());
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(50, 105, 105); }));
    this->run([&] {
        EXPECT_EQ(this->seen.stops, 1);
        EXPECT_EQ(this->seen.samples, samples + 1);
    });
}

TYPED_TEST(ScreenCaptureContract, theEndOfTheWindowSystemStopsItInWords) {
    this->start();
    this->rig.endWindowSystem();
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.stops == 1; }));
    this->run([&] { EXPECT_FALSE(this->seen.failure.text.empty()); });
    const Status again = this->call(&ScreenCapture::start, this->configuration(this->rig.left(), {640, 400}));
    ASSERT_FALSE(again.ok());
    EXPECT_FALSE(again.error().text.empty());
}

TYPED_TEST(ScreenCaptureContract, itDoesNotStartWhereThereIsNothingToCapture) {
    const Status missing = this->call(&ScreenCapture::start, this->configuration(4711, {640, 400}));
    ASSERT_FALSE(missing.ok());
    EXPECT_FALSE(missing.error().text.empty());
    const Status uneven =
        this->call(&ScreenCapture::start, this->configuration(this->rig.left(), {641, 400}));
    EXPECT_FALSE(uneven.ok());
    this->start();
    EXPECT_FALSE(this->call(&ScreenCapture::start, this->configuration(this->rig.left(), {640, 400})).ok());
}

TYPED_TEST(ScreenCaptureContract, nothingComesAfterStopAndItCanStartAgain) {
    this->start();
    this->stop();
    this->rig.paint({{{100, 100, 10, 10}, 50}});
    this->capture->captureWhole();
    this->capture->resume();
    int samples = 0;
    this->run([&] { samples = this->seen.samples; });
    this->stop();
    this->run([&] { EXPECT_EQ(this->seen.samples, samples); });
    ASSERT_TRUE(this->call(&ScreenCapture::start, this->configuration(this->rig.left(), {640, 400})).ok());
    EXPECT_TRUE(this->waitUntil([&] { return this->seen.shows(50, 105, 105); }));
    this->run([&] { EXPECT_TRUE(this->seen.isRising); });
}

TYPED_TEST(ScreenCaptureContract, destroyedInMidStartItSaysNothingMore) {
    for (int i = 0; i < 5; ++i) {
        auto fleeting = this->rig.make();
        fleeting->onSample = [](const ScreenSample&) {};
        fleeting->start(this->configuration(this->rig.left(), {640, 400}), [](Status) {});
        if (i % 2 == 0) this->rig.paint({{{100, 100, 10, 10}, 50}});
    }
    this->start();
}

}  // namespace
}  // namespace velmora
