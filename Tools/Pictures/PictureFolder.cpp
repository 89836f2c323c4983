#include "Tools/Pictures/PictureFolder.h"

#include <fmt/format.h>

#include <QApplication>
#include <QPixmap>
#include <QWidget>

#include "Viewer/Window/Appearance.h"

namespace velmora {

void PictureFolder::setLook(bool dark) {
    Appearance::apply(dark ? Theme::dark : Theme::light);
    look_ = dark ? QStringLiteral("dark") : QStringLiteral("light");
}

void PictureFolder::take(QWidget& window, const std::string& name) {
    QCoreApplication::processEvents();
    for (const int scale : {1, 2}) {
        QPixmap picture(window.size() * scale);
        picture.setDevicePixelRatio(scale);
        picture.fill(QColor(0x7F, 0x8C, 0x99));
        window.render(&picture);
        const QString file = QStringLiteral("%1/%2-%3%4.png")
                                 .arg(folder_, QString::fromStdString(name), look_,
                                      scale == 1 ? QString() : QStringLiteral("@%1x").arg(scale));
        if (picture.save(file)) continue;
        fmt::print(stderr, "cannot write {}\n", file.toStdString());
        isWhole_ = false;
    }
}

}  // namespace velmora
