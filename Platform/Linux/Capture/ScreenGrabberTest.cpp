#include "Platform/Linux/Capture/ScreenGrabber.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "Platform/Linux/Display/X11Displays.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"

namespace velmora {
namespace {

/// A server whose only display of interest lies off the origin, and the damage of its root window.
class ScreenGrabberTest : public testing::Test {
protected:
    static constexpr PixelRect place{320, 0, 641, 403};

    void SetUp() override {
        ASSERT_TRUE(server.ok()) << server.error();
        ASSERT_TRUE(client.setOutput("DUMMY0", {0, 0, 320, 200}));
        ASSERT_TRUE(client.setOutput("DUMMY1", place));
        ASSERT_TRUE(client.makePrimary("DUMMY1"));
        display = X11Displays(server.display()).mainDisplayId();
        auto opened = XConnection::open(server.display());
        ASSERT_TRUE(opened.ok());
        events = std::move(opened).value();
    }
    std::unique_ptr<ScreenGrabber> grabberShowing(PixelSize size) {
        auto grabber = ScreenGrabber::open(server.display());
        EXPECT_TRUE(grabber.ok());
        EXPECT_TRUE((*grabber)->show(display, size).ok());
        return std::move(grabber).value();
    }
    xcb_damage_damage_t damage() {
        events->reply(xcb_damage_query_version_reply, xcb_damage_query_version(*events, 1, 1));
        const xcb_damage_damage_t id = xcb_generate_id(*events);
        xcb_damage_create(*events, id, events->root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
        events->reply(xcb_get_input_focus_reply, xcb_get_input_focus(*events));
        return id;
    }

    XServerFixture server{XServerFixture::Kind::xorgDummy};
    XTestClient client{server.display()};
    std::unique_ptr<XConnection> events;
    DisplayId display = 0;
};

void expectSamePicture(const Picture& a, const Picture& b) {
    const auto rowsEqual = [](const std::uint8_t* left, const std::uint8_t* right, int stride, int width,
                              int height) {
        for (int y = 0; y < height; ++y) {
            if (std::memcmp(left + y * stride, right + y * stride, static_cast<std::size_t>(width)) != 0)
                return false;
        }
        return true;
    };
    ASSERT_EQ(a.size, b.size);
    EXPECT_TRUE(rowsEqual(a.y, b.y, a.strideY, a.size.width, a.size.height));
    EXPECT_TRUE(rowsEqual(a.u, b.u, a.strideU, a.size.width / 2, a.size.height / 2));
    EXPECT_TRUE(rowsEqual(a.v, b.v, a.strideV, a.size.width / 2, a.size.height / 2));
}

TEST_F(ScreenGrabberTest, changesAddUpToExactlyTheWholePicture) {
    // Pixel for pixel with an odd edge left out, smaller, and larger.
    for (const PixelSize size : {PixelSize{640, 402}, PixelSize{480, 302}, PixelSize{800, 500}}) {
        const auto changes = damage(), wholes = damage();
        const auto followed = grabberShowing(size), fresh = grabberShowing(size);
        ASSERT_EQ(followed->grabWhole(changes), ScreenGrabber::Outcome::picture);
        std::mt19937 random(11);
        for (int round = 0; round < 25; ++round) {
            std::vector<XTestClient::Stroke> strokes;
            for (unsigned i = 0; i < 1 + random() % 6; ++i) {
                const auto upTo = [&](int n) {
                    return static_cast<int>(random() % static_cast<unsigned>(n));
                };
                strokes.push_back({{280 + upTo(700), upTo(420), 1 + upTo(60), 1 + upTo(40)},
                                   static_cast<std::uint32_t>(random() & 0xffffff)});
            }
            client.fill(strokes);
            ASSERT_NE(followed->grabChanges(changes), ScreenGrabber::Outcome::failed);
            ASSERT_EQ(fresh->grabWhole(wholes), ScreenGrabber::Outcome::picture);
            expectSamePicture(*followed->picture(), *fresh->picture());
            if (HasFailure()) FAIL() << "round " << round << ", " << size.width;
        }
    }
}

TEST_F(ScreenGrabberTest, changesElsewhereAreNothing) {
    const auto id = damage();
    const auto grabber = grabberShowing({640, 402});
    ASSERT_EQ(grabber->grabWhole(id), ScreenGrabber::Outcome::picture);
    client.fill({0, 0, 320, 200}, 0xffffff);
    EXPECT_EQ(grabber->grabChanges(id), ScreenGrabber::Outcome::nothing);
    client.fill({310, 10, 11, 1}, 0xffffff);  // the last pixel is ours
    EXPECT_EQ(grabber->grabChanges(id), ScreenGrabber::Outcome::picture);
    ASSERT_EQ(grabber->damage().size(), 1u);
    EXPECT_EQ(grabber->damage()[0], (PixelRect{0, 10, 2, 2}));
}

TEST_F(ScreenGrabberTest, aScreenThatShrankUnderAGrabIsLookedAtAnew) {
    const auto id = damage();
    const auto grabber = grabberShowing({640, 402});
    ASSERT_TRUE(client.setOutput("DUMMY1", {320, 0, 160, 100}));
    EXPECT_EQ(grabber->grabWhole(id), ScreenGrabber::Outcome::failed);
    EXPECT_FALSE(grabber->isBroken());
    ASSERT_TRUE(grabber->show(display, {160, 100}).ok());
    EXPECT_EQ(grabber->grabWhole(id), ScreenGrabber::Outcome::picture);
    ASSERT_TRUE(client.turnOff("DUMMY1"));
    EXPECT_FALSE(grabber->show(display, {160, 100}).ok());
}

TEST_F(ScreenGrabberTest, aServerThatDiesIsAFailure) {
    const auto id = damage();
    const auto grabber = grabberShowing({640, 402});
    server.kill();
    EXPECT_EQ(grabber->grabChanges(id), ScreenGrabber::Outcome::failed);
    EXPECT_TRUE(grabber->isBroken());
    EXPECT_FALSE(grabber->show(display, {640, 402}).ok());
}

}  // namespace
}  // namespace velmora
