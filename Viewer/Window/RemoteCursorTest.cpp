#include "Viewer/Window/RemoteCursor.h"

#include <QBuffer>
#include <QImage>
#include <QPixmap>

#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

Bytes pngOf(QSize size, QRgb color) {
    QImage image(size, QImage::Format_ARGB32);
    image.fill(color);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    image.save(&buffer, "PNG");
    return Bytes(bytes.begin(), bytes.end());
}

using RemoteCursorTest = WidgetTest;

TEST_F(RemoteCursorTest, onlyWhatCanBeSeenBecomesACursor) {
    const Bytes good = pngOf({24, 32}, 0xFF00FF00);
    Bytes broken = good;
    broken.resize(40);

    struct Case {
        const char* what;
        CursorShape shape;
        bool isShown;
    };
    for (const Case& c :
         {Case{"good", {24, 32, 3, 4, good}, true}, Case{"of a fine screen", {12, 16, 1, 1, good}, true},
          Case{"hardly there", {24, 32, 0, 0, pngOf({24, 32}, 0x10FFFFFF)}, false},
          Case{"just there", {24, 32, 0, 0, pngOf({24, 32}, 0x11FFFFFF)}, true},
          Case{"too small", {1.9, 32, 0, 0, good}, false}, Case{"broken", {24, 32, 0, 0, broken}, false},
          Case{"larger than any cursor", {24, 32, 0, 0, pngOf({1100, 4}, 0xFF00FF00)}, false},
          Case{"nothing", {24, 32, 0, 0, {}}, false},
          Case{"as large as a screen", {4e7, 4e7, 0, 0, good}, false}}) {
        EXPECT_EQ(cursorOf(c.shape, 1).has_value(), c.isShown) << c.what;
    }
}

TEST_F(RemoteCursorTest, itHasItsSizeInPointsAndItsHotSpotWithin) {
    const auto cursor = cursorOf({12, 16, 40, 5, pngOf({24, 32}, 0xFF00FF00)}, 2);
    ASSERT_TRUE(cursor);
    EXPECT_EQ(cursor->pixmap().size(), QSize(24, 32));
    EXPECT_EQ(cursor->pixmap().devicePixelRatio(), 2);
    EXPECT_EQ(cursor->hotSpot(), QPoint(11, 5));
}

}  // namespace
}  // namespace velmora
