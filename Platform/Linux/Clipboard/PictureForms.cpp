#include "Platform/Linux/Clipboard/PictureForms.h"

#include <QBuffer>
#include <QImageReader>
#include <QImageWriter>

namespace velmora {

namespace {

/// `from` empty: whatever it is.
std::optional<Bytes> converted(ByteView picture, const char* from, const char* to) {
    QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(picture.data()),
                                               static_cast<qsizetype>(picture.size()));
    QBuffer source(&input);
    if (!source.open(QIODevice::ReadOnly)) return std::nullopt;
    QImageReader reader(&source, from);  // refuses to allocate more than 256 MB
    const QImage image = reader.read();
    if (image.isNull()) return std::nullopt;
    QBuffer output;
    if (!output.open(QIODevice::WriteOnly) || !QImageWriter(&output, to).write(image)) return std::nullopt;
    const QByteArray& file = output.data();
    return Bytes(file.begin(), file.end());
}

}  // namespace

std::optional<Bytes> pngOf(ByteView picture) {
    return converted(picture, "", "png");
}

std::optional<Bytes> tiffOf(ByteView png) {
    return converted(png, "png", "tiff");
}

}  // namespace velmora
