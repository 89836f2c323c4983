#include "Viewer/Window/PictureGeometry.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Point = PictureGeometry::Point;

TEST(PictureGeometryTest, thePictureIsFittedAndZoomedUnderThePointer) {
    struct Case {
        const char* what;
        PictureGeometry geometry;
        PictureGeometry::Rect picture;
        Point place, fractions;
    };
    const PixelSize wide{1600, 900};
    for (const Case& c : {
             Case{"bars above and below", {wide, 800, 600}, {0, 75, 800, 450}, {400, 75}, {0.5, 0}},
             Case{"bars beside", {wide, 1000, 450}, {100, 0, 800, 450}, {100, 450}, {0, 1}},
             Case{"a click in the left bar", {wide, 1000, 450}, {100, 0, 800, 450}, {20, 225}, {0, 0.5}},
             Case{"a click below the picture", {wide, 800, 600}, {0, 75, 800, 450}, {800, 599}, {1, 1}},
             Case{"zoomed, nothing known",
                  {wide, 800, 450, 2, {}},
                  {-400, -225, 1600, 900},
                  {400, 225},
                  {0.5, 0.5}},
             Case{"at the left",
                  {wide, 800, 450, 5, Point{0, 225}},
                  {0, -900, 4000, 2250},
                  {0, 225},
                  {0, 0.5}},
             Case{"bottom right",
                  {wide, 800, 450, 5, Point{800, 450}},
                  {-3200, -1800, 4000, 2250},
                  {800, 450},
                  {1, 1}},
             Case{"a pointer far outside",
                  {wide, 800, 450, 2, Point{-50, 900}},
                  {0, -450, 1600, 900},
                  {0, 450},
                  {0, 1}},
             Case{"still smaller one way",
                  {{3200, 200}, 400, 400, 2, Point{400, 0}},
                  {-400, 175, 800, 50},
                  {0, 200},
                  {0.5, 0.5}},
             Case{"no room", {wide, 0, 450}, {}, {3, 3}, {0, 0}},
             Case{"no stream", {{0, 0}, 800, 450}, {}, {3, 3}, {0, 0}},
         }) {
        const PictureGeometry::Rect picture = c.geometry.picture();
        EXPECT_DOUBLE_EQ(picture.x, c.picture.x) << c.what;
        EXPECT_DOUBLE_EQ(picture.y, c.picture.y) << c.what;
        EXPECT_DOUBLE_EQ(picture.width, c.picture.width) << c.what;
        EXPECT_DOUBLE_EQ(picture.height, c.picture.height) << c.what;
        EXPECT_EQ(c.geometry.fractionsAt(c.place), c.fractions) << c.what;
    }
}

}  // namespace
}  // namespace velmora
