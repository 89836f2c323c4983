#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>
#include <xcb/xcb.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Capture/X11CursorSource.h"
#include "Testing/FakeCursorSource.h"
#include "Testing/XServerFixture.h"
#include "Testing/XTestClient.h"
#include "VelmoraKit/Core/ThreadQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

// Pictures of 5 x 4 pixels in one colour.
constexpr std::uint16_t width = 5, height = 4;

struct FakeFixture {
    ThreadQueue main{"main"};
    FakeCursorSource source{main};
    void show(std::uint32_t, int hotX, int hotY) {
        main.runSync([&] {
            source.show({width, height, static_cast<double>(hotX), static_cast<double>(hotY), {1}});
        });
    }
};

struct X11Fixture {
    XServerFixture server{XServerFixture::Kind::xvfb};
    XTestClient client{server.display()};
    ThreadQueue main{"main"};
    X11CursorSource source{main, server.display()};

    /// `rgb` in 16 bits a colour would be the same twice; the pointer lies over the root window.
    void show(std::uint32_t rgb, int hotX, int hotY) {
        xcb_connection_t* c = client.connection();
        const auto pixmap = xcb_generate_id(c), pen = xcb_generate_id(c), cursor = xcb_generate_id(c);
        xcb_create_pixmap(c, 1, pixmap, client.root(), width, height);
        const std::uint32_t one[] = {1};
        xcb_create_gc(c, pen, pixmap, XCB_GC_FOREGROUND, one);
        const xcb_rectangle_t all{0, 0, width, height};
        xcb_poly_fill_rectangle(c, pixmap, pen, 1, &all);
        const auto part = [&](int shift) {
            return static_cast<std::uint16_t>((rgb >> shift & 0xFF) * 0x101);
        };
        xcb_create_cursor(c, cursor, pixmap, pixmap, part(16), part(8), part(0), 0, 0, 0,
                          static_cast<std::uint16_t>(hotX), static_cast<std::uint16_t>(hotY));
        xcb_change_window_attributes(c, client.root(), XCB_CW_CURSOR, &cursor);
        xcb_free_cursor(c, cursor);
        xcb_free_gc(c, pen);
        xcb_free_pixmap(c, pixmap);
        xcb_flush(c);
    }
};

template <class Fixture>
class CursorSourceContract : public testing::Test {
protected:
    void TearDown() override {
        fixture_.main.runSync([this] { watch_.reset(); });
    }
    void watch() {
        fixture_.main.runSync([this] {
            watch_ = fixture_.source.watch([this](CursorShape shape) {
                EXPECT_TRUE(fixture_.main.isCurrent());
                told_.push_back(std::move(shape));
            });
            EXPECT_TRUE(told_.empty()) << "told from inside the call";
        });
    }
    std::optional<CursorShape> hears(double hotX, double hotY) {
        for (int i = 0; i < 1000; ++i) {
            std::optional<CursorShape> last;
            fixture_.main.runSync([&] {
                if (!told_.empty()) last = told_.back();
            });
            if (last && last->hotX == hotX && last->hotY == hotY) return last;
            std::this_thread::sleep_for(10ms);
        }
        return std::nullopt;
    }
    Fixture fixture_;
    std::vector<CursorShape> told_;  // of the main queue
    std::unique_ptr<CursorSource::Watch> watch_;
};
using Fixtures = testing::Types<FakeFixture, X11Fixture>;
TYPED_TEST_SUITE(CursorSourceContract, Fixtures);

TYPED_TEST(CursorSourceContract, itTellsTheShapeAtTheBeginningAndAfterEachChange) {
    this->fixture_.show(0xFF0000, 1, 2);
    this->watch();
    const auto first = this->hears(1, 2);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->width, width);
    EXPECT_EQ(first->height, height);
    EXPECT_FALSE(first->png.empty());
    for (int spot = 0; spot < 4; ++spot) this->fixture_.show(0xFF0000, spot, 0);
    EXPECT_TRUE(this->hears(3, 0)) << "the newest of many";
}

TYPED_TEST(CursorSourceContract, aWatchThatHasEndedTellsNothingAndANewOneBeginsAnew) {
    this->fixture_.show(0xFF0000, 1, 2);
    this->watch();
    ASSERT_TRUE(this->hears(1, 2));
    this->fixture_.main.runSync([this] {
        this->watch_.reset();
        this->told_.clear();
    });
    this->fixture_.show(0x00FF00, 3, 3);
    this->watch();
    EXPECT_TRUE(this->hears(3, 3));
    this->fixture_.main.runSync([this] { EXPECT_EQ(this->told_.size(), 1u); });
}

using X11CursorSourceTest = CursorSourceContract<X11Fixture>;

TEST_F(X11CursorSourceTest, theImageHasTheColoursOfThePointerAndMovingItTellsNothing) {
    fixture_.show(0x3366CC, 0, 0);
    watch();
    const auto shape = hears(0, 0);
    ASSERT_TRUE(shape);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_NE(png_image_begin_read_from_memory(&image, shape->png.data(), shape->png.size()), 0);
    ASSERT_EQ(image.width, width);
    ASSERT_EQ(image.height, height);
    image.format = PNG_FORMAT_BGRA;
    std::vector<std::uint32_t> pixels(width * height);
    ASSERT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0);
    EXPECT_EQ(pixels, std::vector<std::uint32_t>(width * height, 0xFF3366CC));
    for (int x = 0; x < 200; x += 10) fixture_.client.movePointerTo(x, 50);
    fixture_.show(0x3366CC, 2, 2);
    EXPECT_TRUE(hears(2, 2));
    fixture_.main.runSync([this] { EXPECT_EQ(told_.size(), 2u); });
}

}  // namespace
}  // namespace velmora
