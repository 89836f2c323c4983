#include "Viewer/Window/ShapeKeeper.h"

#include <gmock/gmock.h>

#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

struct ShapeKeeperTest : testing::Test {
    ShapeKeeperTest() {
        keeper.onSize = [this](PixelSize size) { asked.push_back(size); };
        change({800, 500}, limits);
        keeper.setShape(PixelSize{1600, 1000});
    }
    void change(PixelSize size, const std::optional<ShapeKeeper::Limits>& within) {
        keeper.windowChanged(size, within);
    }
    const ShapeKeeper::Limits limits{{640, 400}, {1500, 850}};
    VirtualTime time;
    VirtualQueue main{time, "main"};
    bool isDragged = false;
    std::vector<PixelSize> asked;
    ShapeKeeper keeper{[this] { return isDragged; }, main};
};

TEST_F(ShapeKeeperTest, anEdgeThatWasPulledTakesTheOtherOneAlong) {
    isDragged = true;
    change({800, 550}, limits);
    change({800, 600}, limits);
    time.advanceBy(5s);
    EXPECT_THAT(asked, IsEmpty()) << "the hand still holds it";
    isDragged = false;
    time.advanceBy(300ms);
    EXPECT_THAT(asked, ElementsAre(PixelSize{960, 600}));
    change({960, 580}, limits);  // the window manager knows better
    time.advanceBy(5s);
    EXPECT_EQ(asked.size(), 1u);
}

TEST_F(ShapeKeeperTest, onlyAPersonsHandChangesTheShape) {
    change({900, 500}, limits);  // tiled, by a shortcut
    time.advanceBy(5s);
    isDragged = true;
    change({1600, 850}, std::nullopt);  // maximised, by pulling it to the top
    isDragged = false;
    time.advanceBy(5s);
    keeper.setShape(std::nullopt);  // its display follows the window
    isDragged = true;
    change({900, 500}, limits);
    isDragged = false;
    time.advanceBy(5s);
    EXPECT_THAT(asked, IsEmpty());
}

TEST_F(ShapeKeeperTest, theSideThatChangedMoreRulesWithinTheLimits) {
    const auto from = [&](PixelSize before, PixelSize after, PixelSize shape) {
        return ShapeKeeper::shaped(before, after, shape, limits);
    };
    EXPECT_EQ(from({800, 500}, {800, 600}, {1600, 1000}), (PixelSize{960, 600}));
    EXPECT_EQ(from({800, 500}, {700, 480}, {1600, 1000}), (PixelSize{700, 438}));
    EXPECT_EQ(from({800, 500}, {1480, 500}, {1600, 1000}), (PixelSize{1360, 850}));
    EXPECT_EQ(from({800, 500}, {640, 500}, {3000, 1000}), (PixelSize{1200, 400}));
    EXPECT_EQ(from({800, 500}, {640, 500}, {9000, 1000}), (PixelSize{1500, 400})) << "bars rather";
}

}  // namespace
}  // namespace velmora
