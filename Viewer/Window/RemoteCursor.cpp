#include "Viewer/Window/RemoteCursor.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <QPixmap>
#include <cmath>

namespace velmora {

namespace {

constexpr int longestSide = 1024;  // pixels or points; no cursor comes near it
constexpr int visibleAlpha = 16;

std::optional<QImage> decode(const Bytes& png) {
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(png.data()),
                                               static_cast<qsizetype>(png.size()));
    QBuffer buffer(&bytes);
    QImageReader reader(&buffer, "png");
    const QSize size = reader.size();  // as it claims: looked at before anything is made for it
    if (size.isEmpty() || size.width() > longestSide || size.height() > longestSide) return std::nullopt;
    QImage image = reader.read();
    if (image.isNull()) return std::nullopt;
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

bool hasVisiblePixels(const QImage& image) {
    for (int y = 0; y < image.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            if (qAlpha(row[x]) > visibleAlpha) return true;
        }
    }
    return false;
}

}  // namespace

std::optional<QCursor> cursorOf(const CursorShape& shape, double devicePixelRatio) {
    if (!(shape.width >= 2) || !(shape.height >= 2) || shape.width > longestSide ||
        shape.height > longestSide)
        return std::nullopt;
    const auto image = decode(shape.png);
    if (!image || !hasVisiblePixels(*image)) return std::nullopt;
    const QSize pixels(static_cast<int>(std::lround(shape.width * devicePixelRatio)),
                       static_cast<int>(std::lround(shape.height * devicePixelRatio)));
    QPixmap pixmap = QPixmap::fromImage(
        image->size() == pixels ? *image
                                : image->scaled(pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation));
    pixmap.setDevicePixelRatio(devicePixelRatio);
    const auto spot = [](double at, double length) {
        return static_cast<int>(std::lround(std::clamp(at, 0.0, length - 1)));
    };
    return QCursor(pixmap, spot(shape.hotX, shape.width), spot(shape.hotY, shape.height));
}

}  // namespace velmora
