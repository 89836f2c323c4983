#include <QApplication>
#include <QDir>
#include <QFont>
#include <cstdio>

#include "Tools/Pictures/PanelPictures.h"
#include "Tools/Pictures/PictureFolder.h"
#include "Tools/Pictures/WindowPictures.h"
#include "Viewer/Window/Logo.h"

/// Pictures of the application's windows in each of their states, over models that are made up.
int main(int argc, char** argv) {
    if (argc != 2 && !(argc == 3 && QByteArray(argv[2]) == "--large")) {
        std::fputs("Usage: velmora-pictures FOLDER [--large]\n--large: in a font half as large again\n",
                   stderr);
        return 2;
    }
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    velmora::introduceApplication();
    const QString name = QString::fromLocal8Bit(argv[1]);
    if (!QDir().mkpath(name)) {
        std::fprintf(stderr, "cannot make the folder %s\n", argv[1]);
        return 1;
    }
    if (argc == 3) {
        QFont font = QApplication::font();
        font.setPointSizeF(font.pointSizeF() * 1.5);
        QApplication::setFont(font);
    }
    velmora::PictureFolder folder(name);
    for (const bool dark : {false, true}) {
        folder.setLook(dark);
        velmora::takePanelPictures(folder);
        velmora::takeWindowPictures(folder);
    }
    return folder.isWhole() ? 0 : 1;
}
