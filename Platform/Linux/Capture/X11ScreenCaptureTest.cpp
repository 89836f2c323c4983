#include "Platform/Linux/Capture/X11ScreenCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "Platform/Linux/Capture/MakeScreenCapture.h"
#include "Platform/Linux/Display/X11Displays.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using testing::HasSubstr;

HostClock::time_point at(std::uint64_t micros) {
    return HostClock::time_point(HostClock::duration(static_cast<HostClock::rep>(micros)));
}

TEST(MomentOfChangeTest, liesWithinTheServersMillisecondAndNotAfterItWasHeard) {
    EXPECT_EQ(momentOfChange(5000, at(5'000'300)), at(5'000'300));
    EXPECT_EQ(momentOfChange(5000, at(5'004'300)), at(5'000'999));
}

TEST(MomentOfChangeTest, theServersCounterWrapsAround) {
    // 2^32 milliseconds and a little: the server says 3, and before that the largest numbers.
    const std::uint64_t wrap = 0x1'0000'0000ULL * 1000;
    EXPECT_EQ(momentOfChange(3, at(wrap + 9'500)), at(wrap + 3'999));
    EXPECT_EQ(momentOfChange(0xffff'fffe, at(wrap + 1'500)), at(wrap - 1'001));
}

TEST(MomentOfChangeTest, aClockThatIsNotOursIsPassedOver) {
    EXPECT_EQ(momentOfChange(5001, at(5'000'300)), at(5'000'300));
    EXPECT_EQ(momentOfChange(123, at(9'000'000'000)), at(9'000'000'000));
}

class X11ScreenCaptureTest : public testing::Test {
protected:
    Status start(ScreenCapture& capture, const ScreenCapture::Configuration& configuration) {
        std::promise<Status> started;
        capture.start(configuration, [&](Status status) { started.set_value(std::move(status)); });
        return started.get_future().get();
    }
    ThreadQueue queue{"velmora.capture"};
};

TEST_F(X11ScreenCaptureTest, aScreenOfFewColoursIsRefusedInWords) {
    XServerFixture server(XServerFixture::Options{.size = {640, 400}, .depth = 16});
    ASSERT_TRUE(server.ok()) << server.error();
    X11ScreenCapture capture(queue, server.display());
    const auto displays = X11Displays(server.display()).list();
    ASSERT_TRUE(displays.ok());
    const Status status = start(capture, {.display = displays->front().id, .size = {640, 400}});
    ASSERT_FALSE(status.ok());
    EXPECT_THAT(status.error().text, HasSubstr("16 bits"));
}

TEST_F(X11ScreenCaptureTest, aSessionWhoseScreenCannotBeReadIsToldInWords) {
    {
        ScopedDisplay nowhere("");
        const Status status =
            start(*makeScreenCaptureFactory()->make(queue), {.display = 1, .size = {640, 400}});
        ASSERT_FALSE(status.ok());
        EXPECT_THAT(status.error().text, HasSubstr("DISPLAY is not set"));
    }
    XServerFixture server(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(server.ok()) << server.error();
    const DisplayId display = X11Displays(server.display()).mainDisplayId();
    ScopedDisplay here(server.display());
    EXPECT_TRUE(
        start(*makeScreenCaptureFactory()->make(queue), {.display = display, .size = {640, 400}}).ok());
    for (const auto& [name, value] :
         {std::pair("WAYLAND_DISPLAY", "wayland-0"), {"XDG_SESSION_TYPE", "wayland"}}) {
        setenv(name, value, 1);
        const Status status =
            start(*makeScreenCaptureFactory()->make(queue), {.display = display, .size = {640, 400}});
        ASSERT_FALSE(status.ok());
        EXPECT_EQ(status.error().text, "this Wayland session does not let programs read the screen");
        unsetenv(name);
    }
}

TEST_F(X11ScreenCaptureTest, itMayOutliveItsQueuesWork) {
    XServerFixture server(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(server.ok()) << server.error();
    auto capture = std::make_unique<X11ScreenCapture>(queue, server.display());
    const DisplayId display = X11Displays(server.display()).mainDisplayId();
    ASSERT_TRUE(start(*capture, {.display = display, .size = {640, 400}}).ok());
    queue.end();
    capture.reset();
}

TEST_F(X11ScreenCaptureTest, theXServerWithinAWaylandSessionIsKnownByItsOutputs) {
    XServerFixture server(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(server.ok()) << server.error();
    ASSERT_TRUE(XTestClient(server.display()).defineMonitor("XWAYLAND0", {0, 0, 640, 400}, "screen"));
    X11ScreenCapture capture(queue, server.display());
    const DisplayId display = X11Displays(server.display()).mainDisplayId();
    const Status status = start(capture, {.display = display, .size = {640, 400}});
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().text, "this Wayland session does not let programs read the screen");
}

/// Captures one whole picture of a screen.
class OnePicture {
public:
    OnePicture(Queue& queue, const std::string& xDisplay, PixelSize size) : capture_(queue, xDisplay) {
        std::promise<void> arrived;
        capture_.onSample = [&, first = true](const ScreenSample& sample) mutable {
            if (!std::exchange(first, false)) return;
            const Picture& p = *sample.picture;
            for (int y = 0; y < p.size.height; ++y) {
                luma.insert(luma.end(), p.y + y * p.strideY, p.y + y * p.strideY + p.size.width);
            }
            for (int y = 0; y < p.size.height / 2; ++y) {
                u.insert(u.end(), p.u + y * p.strideU, p.u + y * p.strideU + p.size.width / 2);
            }
            arrived.set_value();
        };
        capture_.start({.display = X11Displays(xDisplay).mainDisplayId(), .size = size}, [](Status) {});
        arrived.get_future().wait_for(std::chrono::seconds(20));
    }
    std::vector<std::uint8_t> luma, u;

private:
    X11ScreenCapture capture_;
};

TEST_F(X11ScreenCaptureTest, thePictureHasTheScreensColoursAndNoCursor) {
    XServerFixture server(XServerFixture::Options{.size = {640, 400}});
    ASSERT_TRUE(server.ok()) << server.error();
    XTestClient client(server.display());
    client.fill({0, 0, 640, 400}, 0x0000ff);
    client.movePointerTo(300, 200);
    const OnePicture picture(queue, server.display(), {640, 400});
    ASSERT_EQ(picture.luma.size(), 640u * 400u);
    EXPECT_THAT(picture.luma, testing::Each(picture.luma[0]));
    EXPECT_NEAR(picture.luma[0], 32, 1);  // blue in BT.709, limited range
    EXPECT_NEAR(picture.u[0], 240, 1);
}

TEST_F(X11ScreenCaptureTest, anOddScreenLosesItsEdgeAndIsNotBlurred) {
    XServerFixture server(XServerFixture::Options{.size = {643, 401}});
    ASSERT_TRUE(server.ok()) << server.error();
    XTestClient client(server.display());
    client.fill({0, 0, 643, 401}, 0);
    client.fill({101, 0, 1, 401}, 0xffffff);
    const OnePicture picture(queue, server.display(), {642, 400});
    ASSERT_EQ(picture.luma.size(), 642u * 400u);
    EXPECT_EQ(picture.luma[100], 16);
    EXPECT_EQ(picture.luma[101], 235);
    EXPECT_EQ(picture.luma[102], 16);
}

}  // namespace
}  // namespace velmora
